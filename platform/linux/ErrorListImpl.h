#pragma once

#include "QxCErrorList.h"

#include <cstddef>
#include <mutex>
#include <vector>

/// Content of a list, shared by the list and the error manager.
struct QxCErrorList::Impl {
    Impl(int entries, int entryBytes);

    /// Hands out the stored messages and leaves the list as if it had been reset.
    std::vector<QxSMessage> take();

    const std::size_t maxEntries;
    const std::size_t maxTextBytes;  ///< of all texts together

    mutable std::mutex mutex;  ///< guards what follows
    std::vector<QxSMessage> messages;
    std::size_t textBytes = 0;
    unsigned errorCount = 0;
};
