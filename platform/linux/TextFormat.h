#pragma once

#include <cstdarg>
#include <cstddef>
#include <limits>
#include <optional>
#include <string>

namespace QxNLinuxPlatform {

/// Formats as vsnprintf does, whatever the length of the result. A format that cannot be processed gives its
/// own text.
/// @param format     printf format; null counts as empty
/// @param arguments  left undefined, as by vsnprintf
/// @param limit      a longer text is not built at all
/// @return the text, or nothing when it exceeds the limit
std::optional<std::string> formatText(const char* format, std::va_list arguments,
                                      std::size_t limit = std::numeric_limits<std::size_t>::max());

/// Prints one line about a flaw that nobody can be told otherwise to the standard error output.
void printNotice(const std::string& text);

/// @return what the system says about an errno value
std::string errorText(int error);

}  // namespace QxNLinuxPlatform
