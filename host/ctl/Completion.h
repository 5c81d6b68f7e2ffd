#pragma once

#include "CommandTree.h"

#include <string>

/// Scripts that complete the tool's command lines in a shell.

std::string BashCompletion(const CommandNode& tool);
std::string ZshCompletion(const CommandNode& tool);
std::string FishCompletion(const CommandNode& tool);
