#pragma once

#include "QxExport.h"

/// Levels of the container runtime's log. Levels 4 to 6 also reach the board's message manager.
namespace RteLogLevel {
inline constexpr int Debug = 0;          ///< written as "DEBUG"; ask QxCRTE_LOG_IsLevelEnabled first
inline constexpr int DebugVerbose = 1;   ///< written as "DEBUG_VERBOSE"; ask QxCRTE_LOG_IsLevelEnabled first
inline constexpr int Info = 2;           ///< written as "INFO"
inline constexpr int Warning = 3;        ///< written as "WARNING"
inline constexpr int Error = 4;          ///< written as "ERROR", message of severity 3
inline constexpr int InfoNotify = 5;     ///< written as "INFO", message of severity 1
inline constexpr int WarningNotify = 6;  ///< written as "WARNING", message of severity 2
}  // namespace RteLogLevel

/// Writes one line "[LEVEL] message" to the board's log file; levels 4 to 6 are also sent to the message
/// manager.
///
/// The level is not compared with the configured threshold: callers ask QxCRTE_LOG_IsLevelEnabled before
/// every message of level 0 or 1, so that its arguments are not even computed when nobody wants it. A level
/// that is none of RteLogLevel is written as "UNKNOWN" and notifies nobody.
///
/// @param level   one of RteLogLevel
/// @param format  printf format and arguments; the message is cut to 1023 bytes
///
/// Thread safety: may be called from any thread. Blocks only as long as the platform's log file and message
/// manager do. Takes no heap memory for the text.
extern "C" QX_EXPORT void QxCRTE_LOG_Impl(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/// @param level  one of RteLogLevel
/// @return whether messages of that level are wanted: level 0 with the threshold "DEBUG" or "DEBUG_VERBOSE",
///         level 1 with "DEBUG_VERBOSE", every other level always
///
/// The threshold comes from the board's custom configuration (section and option of
/// QxNCustomConfig::QxNContainerRuntime, default "INFO") at the first call and stays for the life of the
/// process. Thread safety: may be called from any thread.
extern "C" QX_EXPORT bool QxCRTE_LOG_IsLevelEnabled(int level);
