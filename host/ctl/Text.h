#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// @return columns that a text takes on a terminal; UTF-8
size_t DisplayWidth(std::string_view text);

enum class Lines { AreReplaced, AreKept };

/// Makes a text fit for a terminal: control characters, bytes that are not UTF-8 and characters that turn the direction
/// of writing become U+FFFD.
/// @param lines  whether line feeds and tabs are control characters too
std::string Printable(std::string_view text, Lines lines = Lines::AreReplaced);

/// Makes a line of a log fit for a terminal: of the escape sequences only colours stay, and they end with the line;
/// other control characters apart from tabs go, bytes that are not UTF-8 become U+FFFD.
std::string WithColoursOnly(std::string_view line);
