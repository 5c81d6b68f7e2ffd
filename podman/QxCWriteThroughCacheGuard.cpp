#include "QxCWriteThroughCacheGuard.h"

#include "QxCBoardStatus.h"
#include "podman/UserStorage.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace QxNContainer {

namespace {

constexpr const char* WriteThrough = "write through";
constexpr const char* WriteBack = "write back";
constexpr mode_t FileMode = 0666;

/// The path of a write-cache attribute; empty for none.
using AttributePath = std::array<char, 512>;

// What switches the disk back takes no memory: it has to work where none is left, and in a destructor.

AttributePath FindAttribute(QxCErrorListPool& errors) {
    AttributePath path{};
    const QxNUserStorage::MountInfo info = QxNUserStorage::ReadMountInfo(errors);
    const QxSBlockDeviceMount* userStorage =
        info != nullptr ? QxNUserStorage::FindUserStorage(*info) : nullptr;
    if (userStorage == nullptr) {
        return path;
    }
    const std::string_view disk = QxNUserStorage::DiskNameOf(
        {userStorage->device, strnlen(userStorage->device, sizeof(userStorage->device))});
    if (!disk.empty()) {
        snprintf(path.data(), path.size(), "/sys/block/%.*s/queue/write_cache", static_cast<int>(disk.size()),
                 disk.data());
    }
    return path;
}

void SetMode(const char* sysfsPath, const char* mode) {
    if (*sysfsPath == '\0') {
        return;
    }
    const QxNSupport::UniqueFd attribute(open(sysfsPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FileMode));
    if (!attribute.IsOpen()) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning, "Quolex Container Utils:Failed to set '%s' on '%s'\n", mode,
                        sysfsPath);
    }
    // The attribute is written right after the sync.
    if (std::strcmp(mode, WriteBack) == 0) {
        sync();
    }
    if (attribute.IsOpen()) {
        [[maybe_unused]] const ssize_t written =
            TEMP_FAILURE_RETRY(write(attribute.Get(), mode, std::strlen(mode)));
    }
}

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
    try {
        QxNSupport::ErrorListScope errors;
        SetMode(FindAttribute(errors.List()).data(), WriteBack);
    } catch (const std::bad_alloc&) {
        // The board cannot even tell its mounts.
    }
}

bool QxCWriteThroughCacheGuard::IsRealtimeApplicationLoaded(QxCErrorListPool& errors) {
    return QxCBoardStatus::getState(errors, QxCBoardStatus::RealtimeApplicationLoaded, 0) != 0;
}

std::string QxCWriteThroughCacheGuard::GetUserStorageWriteCacheSysfsPath(QxCErrorListPool& errors) {
    return FindAttribute(errors).data();
}

void QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache(const std::string& sysfsPath, const char* mode) {
    SetMode(sysfsPath.c_str(), mode);
}

}  // namespace QxNContainer
