#include "QxCWriteThroughCacheGuard.h"

#include "QxCBoardStatus.h"
#include "podman/UserStorage.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"
#include "support/OutputFile.h"

#include <unistd.h>
#include <cstring>
#include <utility>

namespace QxNContainer {

namespace {

constexpr const char* WriteThrough = "write through";
constexpr const char* WriteBack = "write back";

}  // namespace

QxCWriteThroughCacheGuard::QxCWriteThroughCacheGuard() {
    QxNSupport::ErrorListScope errors;
    if (IsRealtimeApplicationLoaded(errors.List())) {
        return;
    }
    std::string path = GetUserStorageWriteCacheSysfsPath(errors.List());
    if (path.empty()) {
        return;
    }
    SetBlockDeviceWriteCache(path, WriteThrough);
    QX_LOG_IF_ENABLED(
        RteLogLevel::Debug,
        "Quolex Container Utils: Switched user storage disk to write-through mode for Podman request");
    _switchedPath = std::move(path);
}

QxCWriteThroughCacheGuard::QxCWriteThroughCacheGuard(QxCWriteThroughCacheGuard&& other) noexcept
    : _switchedPath(std::exchange(other._switchedPath, std::nullopt)) {}

QxCWriteThroughCacheGuard::~QxCWriteThroughCacheGuard() {
    if (!_switchedPath) {
        return;
    }
    SetBlockDeviceWriteCache(*_switchedPath, WriteBack);
    QX_LOG_IF_ENABLED(
        RteLogLevel::Debug,
        "Quolex Container Utils: Switched user storage disk back to write-back mode after Podman request");
}

std::optional<QxCWriteThroughCacheGuard> QxCWriteThroughCacheGuard::Create(bool enable) {
    if (!enable) {
        return std::nullopt;
    }
    return QxCWriteThroughCacheGuard();
}

void QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode() {
    QxNSupport::ErrorListScope errors;
    SetBlockDeviceWriteCache(GetUserStorageWriteCacheSysfsPath(errors.List()), WriteBack);
}

bool QxCWriteThroughCacheGuard::IsRealtimeApplicationLoaded(QxCErrorListPool& errors) {
    return QxCBoardStatus::getState(errors, QxCBoardStatus::RealtimeApplicationLoaded, 0) != 0;
}

std::string QxCWriteThroughCacheGuard::GetUserStorageWriteCacheSysfsPath(QxCErrorListPool& errors) {
    const QxNUserStorage::MountInfo info = QxNUserStorage::ReadMountInfo(errors);
    const QxSBlockDeviceMount* userStorage =
        info != nullptr ? QxNUserStorage::FindUserStorage(*info) : nullptr;
    if (userStorage == nullptr) {
        return {};
    }
    const std::string disk = QxNUserStorage::DiskNameOf(
        {userStorage->device, strnlen(userStorage->device, sizeof(userStorage->device))});
    return disk.empty() ? std::string() : "/sys/block/" + disk + "/queue/write_cache";
}

void QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache(const std::string& sysfsPath, const char* mode) {
    if (sysfsPath.empty()) {
        return;
    }
    // Takes no memory, so that nothing is thrown: the guard's destructor must not.
    QxNSupport::OutputFile attribute(sysfsPath);
    attribute << mode;
    if (attribute.fail()) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning, "Quolex Container Utils:Failed to set '%s' on '%s'\n", mode,
                        sysfsPath.c_str());
    }
    // The text still sits in the stream's buffer and reaches the attribute right after the sync.
    if (std::strcmp(mode, WriteBack) == 0) {
        sync();
    }
}

}  // namespace QxNContainer
