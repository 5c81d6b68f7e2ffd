#pragma once

#include <optional>
#include <string>
#include <vector>

namespace QxNLinuxPlatform {

/// One line of the mount table.
struct MountEntry {
    int id = 0;
    int parent = 0;
    std::string source;
    std::string target;
    std::string filesystem;
    std::string superOptions;  ///< options of the file system itself, separated by commas
};

/// @return the mount table of the calling process; nothing when it cannot be read
std::optional<std::vector<MountEntry>> readMountTable();

/// Leaves out every mount that a path cannot reach because something else is mounted over it or over one of
/// the directories above it. The order of the table says nothing about that; the parents do.
std::vector<MountEntry> visibleMounts(const std::vector<MountEntry>& table);

/// @return whether a list of options separated by commas holds the option
bool hasOption(const std::string& options, const std::string& option);

}  // namespace QxNLinuxPlatform
