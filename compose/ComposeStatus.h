#pragma once

#include "QxNJson.h"

#include <string>

/// Reading and comparing the container lists of a compose project. No I/O.
namespace QxNCompose {

/// Commands on a project.
namespace CmdType {
inline constexpr int Start = 1;
inline constexpr int Stop = 2;
inline constexpr int Create = 3;
inline constexpr int Remove = 4;
}  // namespace CmdType

/// What the comparison of two container lists found.
namespace Transition {
inline constexpr int NothingCreated = 1;
inline constexpr int Created = 2;
inline constexpr int Nothing = 3;
inline constexpr int Changed = 4;
inline constexpr int Removed = 5;
}  // namespace Transition

/// Turns the tool's list, one JSON object per line, into the text of one JSON array.
std::string StatusArrayText(std::string toolOutput);

/// @return name of the project in a file: its last path component without its last extension
std::string ProjectNameOf(const std::string& composeFilePath);

/// Compares the container lists before and after a command.
/// @param cmdType        one of CmdType
/// @param expectedState  state that the command leads to
/// @param before         list before; matched entries are taken out of the copy
/// @param after          list after
/// @param containers     the containers to report are appended, each with "Name" and "State"
/// @return one of Transition
/// Errors: an entry without a string "Name" or "State" raises the JSON type's type error.
int CompareStates(int cmdType, const std::string& expectedState, QxNJson::json before,
                  const QxNJson::json& after, QxNJson::json& containers);

}  // namespace QxNCompose
