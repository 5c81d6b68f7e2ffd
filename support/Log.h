#pragma once

#include "QxCRTELog.h"

/// Logs a message of level Debug or DebugVerbose; its arguments are computed only when the level is on.
#define QX_LOG_IF_ENABLED(level, ...)              \
    do {                                           \
        if (QxCRTE_LOG_IsLevelEnabled(level)) {    \
            QxCRTE_LOG_Impl((level), __VA_ARGS__); \
        }                                          \
    } while (false)
