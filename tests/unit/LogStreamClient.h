#pragma once

#include "QxCErrorManager.h"
#include "QxCWebSocket.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// A WebSocket that remembers what it was given to send.
class LogStreamClient : public QxNSmartWebApi::QxCWebSocket {
public:
    int sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length, int timeoutMs,
                   bool fragment) override {
        const std::lock_guard lock(_mutex);
        usualArguments = usualArguments && timeoutMs == -1 && !fragment && &errors == expectedErrors;
        if (_messages.size() >= accepted) {
            ++refused;
            return refusal;
        }
        _messages.emplace_back(reinterpret_cast<const char*>(data), length);
        lastData = data;
        if (onMessage) {
            onMessage();
        }
        return 0;
    }

    std::vector<std::string> Messages() const {
        const std::lock_guard lock(_mutex);
        return _messages;
    }

    size_t accepted = SIZE_MAX;  ///< messages after which sending fails
    int refused = 0;             ///< failed sends
    int refusal = 7;             ///< result of a failed send
    bool usualArguments = true;  ///< no time limit, no fragment, the caller's error list
    std::function<void()> onMessage;
    const unsigned char* lastData = nullptr;
    QxCErrorListPool* expectedErrors = nullptr;

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _messages;
};

/// An error list for the life of the object.
class LogStreamErrors {
public:
    LogStreamErrors() : list(*QxCErrorManager::getSingleton()->createErrorList(0, 1, 20, 5, 300)) {}
    LogStreamErrors(const LogStreamErrors&) = delete;
    LogStreamErrors& operator=(const LogStreamErrors&) = delete;
    ~LogStreamErrors() { QxCErrorManager::getSingleton()->deleteErrorList(&list); }

    QxCErrorListPool& list;
};

/// @return a frame of Podman's multiplexed stream
inline std::string LogFrame(const std::string& payload, char stream = 1) {
    std::string frame{stream, 0, 0, 0};
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame += static_cast<char>(payload.size() >> shift & 0xff);
    }
    return frame + payload;
}
