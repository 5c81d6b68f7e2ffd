#pragma once

#include <string>
#include <vector>

/// What reaches libcurl: every option that is set on a handle, in order, as well as the handle's end. Options
/// go on to the real library.
namespace CurlOptions {

/// Records from now on; forgets what was recorded before.
void Record();

/// @return entries such as "URL=http://host", "HTTPGET=1", "HTTPHEADER=a|b", "UNIX_SOCKET_PATH=null",
///         "WRITEFUNCTION=set", "perform", "cleanup"
std::vector<std::string> Recorded();

/// Called when a handle is cleaned up, before it is.
void OnCleanup(void (*callback)());

/// Makes the fstat() call after the next `passing` ones fail.
void FailFstatAfter(int passing);

}  // namespace CurlOptions
