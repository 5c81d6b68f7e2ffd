#include "crp/LoopMount.h"

#include "support/Log.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <cerrno>
#include <cstring>

namespace CRP::LoopMount {

using QxNSupport::UniqueFd;

const std::uint32_t DeviceFlags = LO_FLAGS_READ_ONLY;

namespace {

constexpr const char* ControlDevice = "/dev/loop-control";

UniqueFd openOrLog(const char* path, int mode) {
    UniqueFd file(open(path, mode | O_CLOEXEC));
    if (!file.IsOpen()) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Runtime: open('%s'): %s", path,
                        strerror(errno));
    }
    return file;
}

void logFailedRequest(const char* request) {
    QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Runtime: %s: %s", request, strerror(errno));
}

/// @return path of a loop device that was free when asked for
std::optional<std::string> findFreeDevice() {
    const UniqueFd control = openOrLog(ControlDevice, O_RDWR);
    if (!control.IsOpen()) {
        return std::nullopt;
    }
    const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
    if (number < 0) {
        logFailedRequest("LOOP_CTL_GET_FREE");
        return std::nullopt;
    }
    return "/dev/loop" + std::to_string(number);
}

/// @return the device with the file bound to it; closed when a step failed
UniqueFd openBound(const std::string& devicePath, const std::string& filePath) {
    const UniqueFd file = openOrLog(filePath.c_str(), O_RDONLY);
    if (!file.IsOpen()) {
        return UniqueFd();
    }
    UniqueFd device = openOrLog(devicePath.c_str(), O_RDONLY);
    if (device.IsOpen() && ioctl(device.Get(), LOOP_SET_FD, file.Get()) != 0) {
        logFailedRequest("LOOP_SET_FD");
        device.Reset();
    }
    return device;
}

void release(const UniqueFd& device) { ioctl(device.Get(), LOOP_CLR_FD); }

}  // namespace

std::optional<std::string> bind(const std::string& file, std::uint64_t sizeLimit) {
    std::optional<std::string> path = findFreeDevice();
    if (!path) {
        return std::nullopt;
    }
    const UniqueFd device = openBound(*path, file);
    if (!device.IsOpen()) {
        return std::nullopt;
    }
    loop_info64 info{};
    info.lo_sizelimit = sizeLimit;
    info.lo_flags = DeviceFlags;
    if (ioctl(device.Get(), LOOP_SET_STATUS64, &info) != 0) {
        logFailedRequest("LOOP_SET_STATUS64");
        release(device);
        return std::nullopt;
    }
    return path;
}

bool mountDevice(const std::string& device, const std::string& mountPoint) {
    constexpr unsigned long Flags = MS_RDONLY | MS_NOSUID | MS_NODEV;
    if (mount(device.c_str(), mountPoint.c_str(), "squashfs", Flags, nullptr) == 0) {
        return true;
    }
    QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Runtime: mount('%s', '%s'): %s", device.c_str(),
                    mountPoint.c_str(), strerror(errno));
    const UniqueFd bound(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    if (bound.IsOpen()) {
        release(bound);
    }
    return false;
}

}  // namespace CRP::LoopMount
