#include "daemon/Leftovers.h"

#include "QxCRPScanner.h"
#include "QxCWriteThroughCacheGuard.h"
#include "QxNContainerPaths.h"
#include "daemon/PodmanServices.h"
#include "http/UploadFile.h"
#include "support/ErrorListScope.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using namespace QxNContainer::QxNContainerPaths;
using QxNContainer::QxCWriteThroughCacheGuard;

/// Holds the TCP port; gone after a restart of the board.
constexpr const char* TakenMark = "/run/qxcontainerd.taken";
constexpr const char* BlockDevices = "/sys/class/block";

/// @return the first line; empty when there is none
std::string FirstLine(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

/// @return "major:minor" of everything that is mounted
std::set<std::string> MountedDevices() {
    std::set<std::string> devices;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string device;
        if (fields >> id >> parent >> device) {
            devices.insert(device);
        }
    }
    return devices;
}

bool IsInPluginDirectory(const std::string& file) {
    return file.rfind(PLUGINS_DIR + "/", 0) == 0 ||
           file.rfind(std::string(CRP::SYSTEM_PLUGIN_DIR) + "/", 0) == 0;
}

void ReleaseLoopDevices(std::vector<std::string>& found) {
    const auto mounted = MountedDevices();
    std::error_code error;
    for (fs::directory_iterator device(BlockDevices, error), end; !error && device != end;
         device.increment(error)) {
        const std::string file = FirstLine(device->path() / "loop/backing_file");
        if (!IsInPluginDirectory(file) || mounted.count(FirstLine(device->path() / "dev")) != 0) {
            continue;
        }
        const std::string node = "/dev/" + device->path().filename().string();
        const QxNSupport::UniqueFd bound(open(node.c_str(), O_RDONLY | O_CLOEXEC));
        if (bound.IsOpen() && ioctl(bound.Get(), LOOP_CLR_FD) == 0) {
            std::string& text = found.emplace_back("The loop device ");
            text.append(node).append(" held the plugin file ").append(file);
            text.append(" without a mount; it is free again.");
        }
    }
}

void RestoreDisk(std::vector<std::string>& found) {
    QxNSupport::ErrorListScope errors;
    const std::string attribute = QxCWriteThroughCacheGuard::GetUserStorageWriteCacheSysfsPath(errors.List());
    if (attribute.empty() || FirstLine(attribute) != "write through") {
        return;
    }
    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
    found.emplace_back(
        "The disk of the user storage was in write-through mode; it is in write-back mode again.");
}

/// Plugins are looked at under the same name without the dot before they get their own.
bool IsUnfinishedUpload(const std::string& name) {
    constexpr size_t RandomLetters = 6;
    const std::string prefix = QxNHttp::HiddenUploadPrefix;
    const std::string shown = name.rfind('.', 0) == 0 ? name : "." + name;
    return shown.rfind(prefix, 0) == 0 && shown.size() == prefix.size() + RandomLetters;
}

void RemoveUnfinishedUploads(fs::file_time_type before, std::vector<std::string>& found) {
    for (const std::string& directory : {IMAGES_STORAGE_DIR, COMPOSE_FILES_PATH, PLUGINS_DIR}) {
        std::error_code error;
        for (fs::directory_iterator file(directory, error), end; !error && file != end;
             file.increment(error)) {
            std::error_code failure;
            const std::uintmax_t size = file->file_size(failure);
            if (IsUnfinishedUpload(file->path().filename().string()) &&
                file->last_write_time(failure) < before && fs::remove(file->path(), failure)) {
                found.push_back("An upload of " + std::to_string(size) + " bytes in " + directory +
                                " had never been finished; it has been removed.");
            }
        }
    }
}

}  // namespace

std::vector<std::string> Leftovers::Clear(std::chrono::milliseconds grace) {
    std::vector<std::string> found;
    RemoveUnfinishedUploads(_begun, found);
    if (!fs::exists(TakenMark)) {
        return found;
    }
    if (const int count = EndOrphanedPodmanServices(FirstLine(TakenMark), grace)) {
        found.push_back("Podman services of a host that did not stop were still running: " +
                        std::to_string(count) + "; they have been ended.");
    }
    RestoreDisk(found);
    ReleaseLoopDevices(found);
    Unmark();
    return found;
}

void Leftovers::Mark(unsigned tcpPort) { std::ofstream(TakenMark) << tcpPort << '\n'; }

void Leftovers::Unmark() {
    std::error_code ignored;
    fs::remove(TakenMark, ignored);
}
