#pragma once

#include "Tool.h"

#include <string>

/// @param kind  containers, images, projects, plugins, tokens or shells
/// @return the names of all that there are, one a line; without those that would mean something to a shell. What goes
/// wrong is an exception.
std::string NameList(const std::string& kind, const Tool& tool);
