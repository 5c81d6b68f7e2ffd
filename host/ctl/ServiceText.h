#pragma once

#include "Answers.h"
#include "Console.h"

#include <string>

/// @param service  the state of the service, as the daemon sends it
/// @return all of it, for people
std::string ServiceText(const Answers::Value& service, const Console& console);

/// @return one line
std::string ServiceSummary(const Answers::Value& service, const Console& console);

/// @param answer  the checks of the board, as the daemon sends them
/// @return what was found and, for what is not in order, what to do
std::string ChecksText(const Answers::Value& answer, const Console& console);
