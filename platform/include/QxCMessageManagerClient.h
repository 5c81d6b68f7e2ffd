#pragma once

#include "QxCErrorList.h"

/// The way to the board's message manager, which shows messages to the user of the board.
///
/// Thread safety: may be called from any thread; messages of one call stay together and in order.
class QX_PLATFORM_API QxCMessageManagerClient {
public:
    QxCMessageManagerClient(const QxCMessageManagerClient&) = delete;
    QxCMessageManagerClient& operator=(const QxCMessageManagerClient&) = delete;
    virtual ~QxCMessageManagerClient();

    /// @return the process's client; never null
    static QxCMessageManagerClient* getInstance();

    /// Delivers all messages of `messages`; the list itself stays as it is.
    /// @param errors    receives an error when delivery failed; may be null
    /// @param messages  the messages to deliver; null or empty sends nothing
    void sendMessageList(QxCErrorListPool* errors, const QxCErrorList* messages);

private:
    QxCMessageManagerClient();
};
