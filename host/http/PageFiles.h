#pragma once

#include "http/Message.h"

#include <string>

namespace QxNHttp {

/// Answers with a file of the page's directory; "/" is "index.html". Nothing outside the directory, no link and nothing
/// but regular files is served.
/// @param directory  empty when there is no page
/// @throws Problem
Reply PageFile(const std::string& directory, const Request& request);

}  // namespace QxNHttp
