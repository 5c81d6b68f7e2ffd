#pragma once

#include "QxLinuxBaseUtils.h"

#include <optional>
#include <string>
#include <string_view>

namespace QxNLinuxPlatform {

/// Counts the cores of a list as the kernel writes it, such as "0-3,5"; a line feed may follow.
/// @return the number of different cores, or nothing when the text is no such list
std::optional<unsigned int> countCores(std::string_view list);

/// @return the set bits as a list in the kernel's form, such as "1,6-7"; empty for an empty mask
std::string formatCores(const QxTBitmap& mask);

}  // namespace QxNLinuxPlatform
