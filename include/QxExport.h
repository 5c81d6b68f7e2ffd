#pragma once

/// Marks what libQxContainerUtils.so exports; everything else in it is hidden.
#define QX_EXPORT __attribute__((visibility("default")))
