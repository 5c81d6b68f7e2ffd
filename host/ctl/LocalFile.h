#pragma once

#include <string>

/// @param path  "-": the standard input
/// @return what the file holds; more than `largest` bytes, or a file that cannot be read, are a CtlError
std::string ReadLocalFile(const std::string& path, size_t largest);

/// @param path   of a file here
/// @param given  what the user said; empty: nothing
/// @return the name that a file gets on the board
std::string NameOnBoard(const std::string& path, const std::string& given);
