#pragma once

#include "QxPlatformExport.h"

/// The board's log file.
///
/// Thread safety: may be called from any thread; lines of different threads are never mixed.
class QX_PLATFORM_API QxCLogfile {
public:
    QxCLogfile(const QxCLogfile&) = delete;
    QxCLogfile& operator=(const QxCLogfile&) = delete;
    virtual ~QxCLogfile();

    /// @return the process's log file; never null, also when the file cannot be written
    static QxCLogfile* getInstance();

    /// Appends one formatted line; the line feed at its end belongs to the format. Failures are the
    /// platform's concern and are not reported to the caller.
    void logPrintf(const char* format, ...) QX_PLATFORM_PRINTF(2, 3);

private:
    QxCLogfile();
};
