#pragma once

#include "QxNContainerPaths.h"
#include "Recording.h"
#include "Sandbox.h"

#include <sys/mount.h>
#include <filesystem>
#include <string>

/// The parts of a board that tests set up in their sandbox.
namespace Board {

using namespace QxNContainer::QxNContainerPaths;

inline constexpr const char* WriteCache = "/sys/block/sda/queue/write_cache";

/// Writes the settings file as another program would.
inline void WriteSettings(const std::string& json) { Sandbox::WriteFile(SETTINGS_FILE, json); }

inline std::string Settings() { return Sandbox::ReadFile(SETTINGS_FILE); }

/// Mounts something at "/userstorage1", so that it is a mount point; what it is the script says.
inline void MountUserStorage() {
    std::filesystem::create_directories("/userstorage1");
    mount("tmpfs", "/userstorage1", "tmpfs", 0, nullptr);
}

/// A usable user storage on /dev/sda1, with the disk's write-cache attribute.
inline void ProvideUserStorage() {
    MountUserStorage();
    Recording::TheScript().mounts = {{"/boot", "/dev/sdz9", 7}, {"/userstorage1", "/dev/sda1", 2}};
    mount("tmpfs", "/sys/block", "tmpfs", 0, nullptr);
    Sandbox::WriteFile(WriteCache, "write back");
}

/// A firmware image that is mounted already: the mount point with the directories that links are made to.
inline void ProvideMountedFirmware() {
    std::filesystem::create_directories(CNI_PLUGINS);
    Sandbox::WriteFile(CONTAINER_TOOLS, "image");
}

/// Everything that init() needs.
inline void ProvideContainerSystem(const std::string& settings = R"({"enabled": true})") {
    WriteSettings(settings);
    ProvideUserStorage();
    ProvideMountedFirmware();
}

}  // namespace Board
