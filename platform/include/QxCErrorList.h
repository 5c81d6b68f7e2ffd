#pragma once

#include "QxPlatformExport.h"

#include <memory>
#include <string>
#include <vector>

/// Severities of the messages in a list.
namespace QxNSeverity {
inline constexpr int Info = 1;
inline constexpr int Warning = 2;
inline constexpr int Error = 3;
}  // namespace QxNSeverity

/// One stored message.
struct QxSMessage {
    long long timeMs = 0;  ///< when it was stored: milliseconds since the epoch
    int severity = 0;      ///< one of QxNSeverity
    int number = 0;        ///< message number, unique within its source
    std::string source;    ///< the component that reports
    std::string text;      ///< UTF-8 text for the user of the board
};

/// A bounded list of messages. Lists are made and deleted by QxCErrorManager only.
///
/// A list never grows beyond the bounds it was created with: what does not fit is counted and dropped.
/// Thread safety: every operation may be called from any thread. No operation blocks for long.
class QX_PLATFORM_API QxCErrorList {
public:
    QxCErrorList(const QxCErrorList&) = delete;
    QxCErrorList& operator=(const QxCErrorList&) = delete;
    virtual ~QxCErrorList();

    /// Stores one message; a message of severity QxNSeverity::Error also counts as an error.
    /// @param severity   one of QxNSeverity
    /// @param group      message group; 0 is the only group in use
    /// @param number     message number within the source
    /// @param source     reporting component, copied
    /// @param format     printf format of the text, with its arguments
    void setMessage(int severity, int group, int number, const char* source, const char* format, ...)
        QX_PLATFORM_PRINTF(6, 7);

    /// @return how many errors were reported since the list was created or reset, dropped ones included, so
    ///         that a caller can tell by a grown count that a call failed even when the list was full.
    unsigned getErrorCount() const;

    /// @return a copy of the stored messages, oldest first
    std::vector<QxSMessage> getMessages() const;

    /// Empties the list and sets the error count to 0.
    void reset();

protected:
    struct Impl;
    QxCErrorList(int maxEntries, int maxEntryBytes);

private:
    friend class QxCErrorManager;
    std::unique_ptr<Impl> _impl;
};

/// The error list that platform calls report into: a call failed when it added an error to the list it was
/// given.
class QX_PLATFORM_API QxCErrorListPool : public QxCErrorList {
private:
    friend class QxCErrorManager;
    using QxCErrorList::QxCErrorList;
};
