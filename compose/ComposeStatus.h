#pragma once

#include "QxNJson.h"

#include <string>

/// Reading and comparing the container lists of a compose project, and telling the result. No I/O.
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

/// Result codes of the operations.
namespace Result {
inline constexpr int Success = 0;
inline constexpr int CreateSuccess = 1;
inline constexpr int NoFileNamePointer = 2;
inline constexpr int EmptyFileName = 3;
inline constexpr int NoSuchFile = 4;
inline constexpr int NothingChanged = 7;
inline constexpr int Unexpected = 8;
}  // namespace Result

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

/// What the caller of an operation gets.
struct Outcome {
    int code;  ///< one of Result, or the runner's
    QxNJson::json result;
};

/// @return the result object of an operation that failed
QxNJson::json ErrorObject(const std::string& message);

/// Judges a command that ran.
/// @param cmdType     one of CmdType
/// @param participle  what the command does to containers, for the message
/// @param transition  what CompareStates() found; any other number is an error
/// @param containers  the containers to report
Outcome OutcomeOf(int cmdType, const std::string& participle, int transition,
                  const QxNJson::json& containers);

}  // namespace QxNCompose
