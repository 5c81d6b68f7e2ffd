#pragma once

#include "QxCErrorList.h"

/// State of the board. Thread safety: may be called from any thread.
class QX_PLATFORM_API QxCBoardStatus {
public:
    /// Selector of getState: whether a real-time application is loaded.
    static constexpr int RealtimeApplicationLoaded = 6;

    /// @param errors    receives an error when the state cannot be had
    /// @param selector  what is asked
    /// @param instance  0, the only value in use
    /// @return the state; for RealtimeApplicationLoaded non-zero means yes. 0 on failure.
    static int getState(QxCErrorListPool& errors, int selector, int instance);
};
