#pragma once

#include <functional>
#include <string>

namespace QxNSupport {

/// Hands on the name of every entry of a directory, in the order in which the directory yields them. For what
/// std::filesystem's iterators do: in libstdc++ 12 these end the process when memory runs out.
///
/// Errors: std::filesystem::filesystem_error when the directory cannot be opened or read.
void VisitDirectory(const std::string& directory, const std::function<void(const std::string& name)>& visit);

/// @return whether the directory has no entries; errors as above
bool IsEmptyDirectory(const std::string& directory);

}  // namespace QxNSupport
