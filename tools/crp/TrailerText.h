#pragma once

#include "CrpPluginHeader.h"
#include "QxNJson.h"

#include <string>

/// @return the text in quotation marks, with everything escaped that could upset a terminal
std::string Quoted(const std::string& text);

/// @return the fields of a trailer under the names that the library's own listing uses
QxNJson::json DescribeTrailer(const CrpPluginHeader& trailer);

/// @return whether the file has the whole image in front of the trailer
bool IsImageComplete(const CrpPluginHeader& trailer, std::uint64_t fileSize);
