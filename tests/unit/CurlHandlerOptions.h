#pragma once

#include <string>
#include <vector>

/// What reaches libcurl: every option that is set on a handle, in order, as well as the end of lists, of
/// upload files and of the handle. Options go on to the real library.
namespace CurlOptions {

/// Records from now on; forgets what was recorded before.
void Record();

/// @return entries such as "URL=http://host", "HTTPGET=1", "HTTPHEADER=a|b", "UNIX_SOCKET_PATH=null",
///         "WRITEFUNCTION=set", "perform", "free a|b" for a list,
///         "fclose" for a file that was the READDATA, "cleanup"
std::vector<std::string> Recorded();

/// Called when a handle is cleaned up, before it is.
void OnCleanup(void (*callback)());

/// Adds an entry of the test's own.
void Note(const std::string& entry);

/// Makes the next curl_easy_init() give null.
void FailInit();

/// Makes the next curl_easy_perform() do nothing but claim that so many bytes of a body have arrived.
void ClaimBody(size_t size);

/// Makes the fstat() call after the next `passing` ones fail.
void FailFstatAfter(int passing);

}  // namespace CurlOptions
