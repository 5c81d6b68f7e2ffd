#pragma once

#include "QxPlatformExport.h"

#include <cstdint>

/// A set of numbers as bits, 64 to a word, bit n of the set being bit n % 64 of word n / 64. Not owning.
struct QxTBitmap {
    std::uint64_t* words;  ///< enough words for `bits` bits
    std::uint32_t bits;    ///< number of bits
};

// Linux CPU sets by name. Failures are reported in the calling thread's master error list where it has one,
// else straight to the message manager. Thread safety: may be called from any thread.

/// Creates the CPU set of that name, or redefines it, with the cores of the mask; an empty mask is allowed.
/// @return 0, or -1 when a step failed
QX_PLATFORM_API int QxLinuxBaseUtils_CpuSetCreate(const char* name, const QxTBitmap* mask);

/// Switches load balancing within the set on (1) or off (0).
/// @return 0, or -1 when a step failed
QX_PLATFORM_API int QxLinuxBaseUtils_CpuSetLoadBalance(const char* name, int on);

/// Moves a thread into the set; where the system cannot move a single thread, its whole process.
/// @param name    the set
/// @param thread  thread id; 0 is the calling thread
/// @return 0, or -1 when a step failed
QX_PLATFORM_API int QxLinuxBaseUtils_CpuSetAttach(const char* name, int thread);
