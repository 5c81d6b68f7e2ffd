#include "QxCContainer.h"
#include "QxCWebSocket.h"
#include "podman/LogDemultiplexer.h"
#include "podman/PodmanApi.h"

#include <utility>

namespace QxNContainer {

using QxNSmartWebApi::QxCWebSocket;

namespace {

/// Holds a mutex of the board for a scope.
class LockScope {
public:
    explicit LockScope(QxNRtosAbstraction::QxCMutex& mutex) : _mutex(mutex) { _mutex.lock(-1); }
    LockScope(const LockScope&) = delete;
    LockScope& operator=(const LockScope&) = delete;
    ~LockScope() { _mutex.unlock(); }

private:
    QxNRtosAbstraction::QxCMutex& _mutex;
};

bool Send(QxCWebSocket* ws, QxCErrorListPool& errors, const unsigned char* data, size_t length) {
    return ws != nullptr && ws->sendBinary(errors, data, static_cast<unsigned int>(length), -1, false) == 0;
}

const unsigned char* Bytes(const char* data) { return reinterpret_cast<const unsigned char*>(data); }

}  // namespace

std::shared_ptr<QxCContainer::QxSLogStreamSession> QxCContainer::RegisterLogStreamSession(
    QxCWebSocket* ws, const std::string& containerId) {
    auto session = std::make_shared<QxSLogStreamSession>();
    session->tty = IsContainerTty(containerId);
    std::shared_ptr<QxSLogStreamSession> replaced = session;
    const LockScope lock(_sessionMutex);
    _logStreamSessions[ws].swap(replaced);
    return session;
}

void QxCContainer::UnregisterLogStreamSession(QxCWebSocket* ws) {
    const LockScope lock(_sessionMutex);
    _logStreamSessions.erase(ws);
}

void QxCContainer::LogStreamCloseHandler(const void* /*data*/, unsigned int /*length*/, QxCWebSocket* ws) {
    if (ws == nullptr) {
        return;
    }
    QxCContainer& service = GetInstance();
    const LockScope lock(service._sessionMutex);
    const auto entry = service._logStreamSessions.find(ws);
    if (entry != service._logStreamSessions.end()) {
        entry->second->abortFlag.exchange(true);
    }
}

PodmanResponse QxCContainer::StreamPodmanRequest(
    const std::string& endpoint, QxCCurlHandler::MethodType method, const std::vector<std::string>& headers,
    // The public signature takes the session by value.
    // NOLINTNEXTLINE(performance-unnecessary-value-param)
    QxCErrorListPool& errors, std::shared_ptr<QxSLogStreamSession> session, QxCWebSocket* ws) {
    if (session == nullptr) {
        return {};
    }
    QxCCurlHandler curl;
    const std::string url = ConfigureCurlForPodman(curl) + PodmanApiPrefix + endpoint;
    curl.SetMethodType(method);
    curl.SetUrl(url);
    curl.SetHeaders(headers);
    curl.SetStreamCallback([this, session, ws, &errors](const char* data, size_t length) {
        return session->tty ? ForwardRawLogChunk(errors, *session, ws, data, length)
                            : DemuxAndForwardLogChunk(errors, *session, ws, data, length);
    });
    curl.SetAbortFlag(&session->abortFlag);
    PodmanResponse response;
    response.body = curl.Execute();
    response.httpCode = curl.GetHttpCode();
    return response;
}

size_t QxCContainer::ForwardRawLogChunk(QxCErrorListPool& errors, QxSLogStreamSession& session,
                                        QxCWebSocket* ws, const char* data, size_t length) {
    if (length == 0 || session.abortFlag) {
        return 0;
    }
    return Send(ws, errors, Bytes(data), length) ? length : 0;
}

size_t QxCContainer::DemuxAndForwardLogChunk(QxCErrorListPool& errors, QxSLogStreamSession& session,
                                             QxCWebSocket* ws, const char* data, size_t length) {
    if (session.abortFlag) {
        return 0;
    }
    const auto send = [&](const unsigned char* payload, size_t payloadLength) {
        return Send(ws, errors, payload, payloadLength);
    };
    return QxNLogStream::Demultiplex(session.pending, Bytes(data), length, send) ? length : 0;
}

}  // namespace QxNContainer
