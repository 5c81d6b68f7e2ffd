#pragma once

#include "QxCErrorList.h"

#include <string>

namespace QxNLinuxPlatform {

/// @return the message as one line of JSON with its line feed: time (ISO 8601, UTC, milliseconds), severity,
///         number, source and text; bytes that are not UTF-8 become U+FFFD
std::string messageLine(const QxSMessage& message);

}  // namespace QxNLinuxPlatform
