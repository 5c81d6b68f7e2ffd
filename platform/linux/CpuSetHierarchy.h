#pragma once

#include "MountTable.h"

#include <optional>
#include <string>
#include <vector>

namespace QxNLinuxPlatform {

/// The control group hierarchy that has the kernel's cpuset controller.
struct CpuSetHierarchy {
    enum class Version { V1, V2 };
    Version version;
    std::string directory;  ///< where it is mounted
};

/// Picks the hierarchy from the mount table: the mount of a controller of version 1, else the first mount of
/// version 2 whose group has the controller.
/// @param readText  gives the content of a file, empty when it cannot be read
/// @return nothing when no mounted hierarchy has the controller
template <typename ReadText>
std::optional<CpuSetHierarchy> findCpuSetHierarchy(const std::vector<MountEntry>& table, ReadText readText);

/// @return whether the blank-separated list that a control file holds contains the word
bool hasWord(const std::string& list, const std::string& word);

/// @return whether a set may have that name: one path component that stays below the hierarchy
bool isCpuSetName(const std::string& name);

template <typename ReadText>
std::optional<CpuSetHierarchy> findCpuSetHierarchy(const std::vector<MountEntry>& table, ReadText readText) {
    const std::vector<MountEntry> mounts = visibleMounts(table);
    for (const MountEntry& mount : mounts) {
        if (mount.filesystem == "cgroup" && hasOption(mount.superOptions, "cpuset")) {
            return CpuSetHierarchy{CpuSetHierarchy::Version::V1, mount.target};
        }
    }
    for (const MountEntry& mount : mounts) {
        if (mount.filesystem == "cgroup2" &&
            hasWord(readText(mount.target + "/cgroup.controllers"), "cpuset")) {
            return CpuSetHierarchy{CpuSetHierarchy::Version::V2, mount.target};
        }
    }
    return std::nullopt;
}

}  // namespace QxNLinuxPlatform
