#pragma once

#include "CrpPluginHeader.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CRP {

/// What reading the trailer of a file came to.
enum class PluginFileStatus {
    Plugin,
    CannotOpen,  ///< errno says why
    TooShort,    ///< shorter than a trailer
    CannotRead,  ///< also: nothing that has an end, such as a FIFO
    WrongMagic,
    IncompatibleHeader,  ///< the trailer has another size; it was read all the same
};

/// Reads and checks the trailer of one file. Does not block on FIFOs and devices.
/// @param header    receives the trailer for Plugin and IncompatibleHeader; undefined otherwise
/// @param fileSize  receives the size of the file for those two, which is at least that of the trailer; may be null
PluginFileStatus readPluginFile(const std::string& path, CrpPluginHeader& header,
                                std::uint64_t* fileSize = nullptr);

/// Calls `visit` with every name in a directory in its own order, "." and ".." included, while it is read.
/// @return false, with errno set, when the directory cannot be opened
bool visitDirectory(const std::string& directory, const std::function<void(std::string_view name)>& visit);

/// @return the names in a directory in its own order, "." and ".." included; nothing, with errno set, when it
/// cannot be opened
std::optional<std::vector<std::string>> listDirectory(const std::string& directory);

/// @return whether the scan passes over an entry of that name without looking at it
bool isHidden(std::string_view entryName);

/// @return whether the path, links followed, leads to a regular file
bool isRegularFile(const std::string& path);

}  // namespace CRP
