#pragma once

#include "Sandbox.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

/// The machine's loop devices, as far as they are bound to files of this test. The sandbox shares them with
/// everybody else, so a test's files lie in a directory whose name nobody else has.
class LoopDevices {
public:
    LoopDevices() : _turn(open("/dev/loop-control", O_RDONLY | O_CLOEXEC)) {
        // Two that ask for a free device at the same time get the same one, and the second cannot bind it.
        flock(_turn, LOCK_EX);
        std::getline(std::ifstream("/proc/sys/kernel/random/uuid"), _directory);
        _directory = "/plugins-" + _directory;
        std::filesystem::create_directory(_directory);
    }
    LoopDevices(const LoopDevices&) = delete;
    LoopDevices& operator=(const LoopDevices&) = delete;
    ~LoopDevices() {
        for (const std::string& mountPoint : Mounts()) {
            umount2(mountPoint.c_str(), MNT_DETACH);
        }
        for (const std::string& device : Bound()) {
            const int fd = open(("/dev/" + device).c_str(), O_RDONLY | O_CLOEXEC);
            ioctl(fd, LOOP_CLR_FD);
            close(fd);
        }
        close(_turn);
    }

    /// @return the directory of this test's files
    const std::string& Directory() const { return _directory; }

    /// @return the names of the devices that are bound to this test's files
    std::vector<std::string> Bound() const {
        std::vector<std::string> devices;
        for (const auto& device : std::filesystem::directory_iterator("/sys/block")) {
            if (Attribute(device.path().filename(), "backing_file").find(_directory) != std::string::npos) {
                devices.push_back(device.path().filename());
            }
        }
        return devices;
    }

    static std::string Attribute(const std::string& device, const std::string& name) {
        std::string value;
        std::getline(std::ifstream("/sys/block/" + device + "/loop/" + name), value);
        return value;
    }

    /// @return the mount points of plugins, one for each mount, in the order in which they were made
    static std::vector<std::string> Mounts() {
        std::vector<std::string> mountPoints;
        std::ifstream mounts("/proc/self/mounts");
        for (std::string line; std::getline(mounts, line);) {
            const std::size_t start = line.find(' ') + 1;
            const std::string mountPoint = line.substr(start, line.find(' ', start) - start);
            if (mountPoint.starts_with("/mnt/crp_")) {
                mountPoints.push_back(mountPoint);
            }
        }
        return mountPoints;
    }

private:
    int _turn;
    std::string _directory;
};
