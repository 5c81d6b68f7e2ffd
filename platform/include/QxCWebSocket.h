#pragma once

#include "QxCErrorList.h"

namespace QxNSmartWebApi {

/// A connected WebSocket of the board's web server, implemented by the layer that owns the server.
class QX_PLATFORM_API QxCWebSocket {
public:
    QxCWebSocket() = default;
    QxCWebSocket(const QxCWebSocket&) = delete;
    QxCWebSocket& operator=(const QxCWebSocket&) = delete;
    virtual ~QxCWebSocket();

    /// Sends one binary message; blocks until it is written, refused or timed out. May be called from any
    /// thread, by one thread at a time.
    /// @param errors     receives the cause of a failure
    /// @param data       the message's bytes, copied or written before the call returns
    /// @param length     their number
    /// @param timeoutMs  longest wait in milliseconds; -1 waits without limit
    /// @param fragment   whether more parts of the same message follow
    /// @return 0 on success, else non-zero
    virtual int sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length,
                           int timeoutMs, bool fragment) = 0;
};

}  // namespace QxNSmartWebApi
