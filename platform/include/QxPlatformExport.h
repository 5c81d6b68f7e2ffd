#pragma once

/// Marks what the platform library exports; everything else in it is hidden.
#define QX_PLATFORM_API __attribute__((visibility("default")))

/// Lets the compiler check printf-style arguments. Indices count from 1; `this` is argument 1 of a member.
#define QX_PLATFORM_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))
