#pragma once

#include "CrpPluginHeader.h"

#include <string>
#include <vector>

struct PackOptions;

/// Makes the trailer of a plugin; every byte that it does not set is zero. Refuses texts that a board could
/// not read back as they are.
CrpPluginHeader MakeTrailer(const PackOptions& options, std::uint64_t imageSize);

/// @return what a board would do otherwise than the user of these options may think
std::vector<std::string> DoubtsAbout(const PackOptions& options);
