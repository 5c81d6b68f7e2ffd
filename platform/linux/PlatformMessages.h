#pragma once

#include "QxCErrorList.h"

#include <string>
#include <vector>

namespace QxNLinuxPlatform {

inline constexpr const char* MessageSource = "Quolex Linux Platform";

/// Message numbers of the source MessageSource; users see them, so none is ever given a new meaning.
enum class MessageNumber : int {
    ThreadNotCreated = 1,
    MessageFileNotWritten = 2,
    JournalNotWritten = 3,
    CoreCountUnknown = 4,
    MountTableUnreadable = 5,
    BoardStateUnknown = 6,
    CpuSetFailed = 7,
    CpuSetProcessMoved = 8,
    ContainerCoresNotRecorded = 9,
    MasterErrorListReplaced = 10,
    ArgumentNotSupported = 11,
};

/// Stores an error of this library in `errors`; null is allowed.
void addError(QxCErrorListPool* errors, MessageNumber number, const std::string& text);

/// Stores a message in the calling thread's master error list; without one it goes to the message manager.
void report(int severity, MessageNumber number, const std::string& text);

/// Delivers messages to the message manager.
/// @param errors  receives an error when delivery failed; may be null
void deliverMessages(QxCErrorListPool* errors, const std::vector<QxSMessage>& messages);

}  // namespace QxNLinuxPlatform
