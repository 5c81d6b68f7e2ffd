#include "QxCCurlHandler.h"

#include "support/Log.h"

#include <sys/stat.h>
#include <exception>
#include <utility>

namespace {

/// A directory can be opened and has a size but no content: the server would wait for a body without end.
/// Opening a pipe waits for who writes into it.
bool HasNoContent(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && (S_ISDIR(info.st_mode) || S_ISFIFO(info.st_mode));
}

/// What left a write callback on this thread. libcurl must not see it: it would neither close the connection
/// nor restore the signals of the process.
thread_local std::exception_ptr callbackFailure;

/// @return what the callback does; 0, which ends the transfer, when it throws
template <typename Callback>
size_t KeepFailure(Callback callback) {
    try {
        return callback();
    } catch (...) {
        callbackFailure = std::current_exception();
        return 0;
    }
}

}  // namespace

QxCCurlHandler::QxCCurlHandler() : _curl(curl_easy_init()) {}

QxCCurlHandler::~QxCCurlHandler() = default;

void QxCCurlHandler::SetUrl(const std::string& url) {
    _url = url;
    curl_easy_setopt(_curl.get(), CURLOPT_URL, _url.c_str());
}

void QxCCurlHandler::SetUnixSocket(const std::string& path) {
    _connectTo.reset();
    curl_easy_setopt(_curl.get(), CURLOPT_CONNECT_TO, nullptr);
    curl_easy_setopt(_curl.get(), CURLOPT_UNIX_SOCKET_PATH, path.c_str());
}

void QxCCurlHandler::SetTcpSocket(unsigned short port) {
    curl_easy_setopt(_curl.get(), CURLOPT_UNIX_SOCKET_PATH, nullptr);
    const std::string entry = "::127.0.0.1:" + std::to_string(port);
    _connectTo.reset(curl_slist_append(nullptr, entry.c_str()));
    curl_easy_setopt(_curl.get(), CURLOPT_CONNECT_TO, _connectTo.get());
}

void QxCCurlHandler::SetHeaders(const std::vector<std::string>& headers) {
    std::unique_ptr<curl_slist, HeaderDeleter> list;
    for (const std::string& header : headers) {
        // A failed append leaves the list as it was; the request then lacks that header.
        if (curl_slist* extended = curl_slist_append(list.get(), header.c_str())) {
            static_cast<void>(list.release());
            list.reset(extended);
        }
    }
    _headers = std::move(list);
    curl_easy_setopt(_curl.get(), CURLOPT_HTTPHEADER, _headers.get());
}

void QxCCurlHandler::SetPayload(const std::string& payload) {
    _payload = payload;
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDS, _payload.c_str());
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(_payload.size()));
    _body = Body::Payload;
}

void QxCCurlHandler::UploadFile(const std::string& path) {
    std::unique_ptr<FILE, FileDeleter> file(HasNoContent(path) ? nullptr : fopen(path.c_str(), "rb"));
    if (file == nullptr) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container CURL Handler:Error opening file: %s\n",
                        path.c_str());
        return;
    }
    const bool isReplacement = _uploadFile != nullptr;
    _uploadFile = std::move(file);
    struct stat info {};
    if (fstat(fileno(_uploadFile.get()), &info) != 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container CURL Handler:Error getting file info: %s\n",
                        path.c_str());
        if (isReplacement) {
            // The handle still refers to the file that was closed just now.
            curl_easy_setopt(_curl.get(), CURLOPT_READDATA, _uploadFile.get());
        }
        if (_body == Body::File) {
            curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
            _body = Body::None;
        }
        return;
    }
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(_curl.get(), CURLOPT_READFUNCTION, ReadCallback);
    curl_easy_setopt(_curl.get(), CURLOPT_READDATA, _uploadFile.get());
    curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(info.st_size));
    _body = Body::File;
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container CURL Handler:Upload configured: file=%s, size=%lld bytes\n",
                      path.c_str(), static_cast<long long>(info.st_size));
}

void QxCCurlHandler::SetMethodType(const MethodType& method) {
    curl_easy_setopt(_curl.get(), CURLOPT_CUSTOMREQUEST, nullptr);
    curl_easy_setopt(_curl.get(), CURLOPT_POST, 0L);
    curl_easy_setopt(_curl.get(), CURLOPT_HTTPGET, 0L);
    switch (method) {
        case Get:
            curl_easy_setopt(_curl.get(), CURLOPT_HTTPGET, 1L);
            break;
        case Post:
            curl_easy_setopt(_curl.get(), CURLOPT_POST, 1L);
            // Without a body and its size libcurl would send what it reads from standard input.
            if (_body == Body::None) {
                curl_easy_setopt(_curl.get(), CURLOPT_POSTFIELDSIZE, 0L);
            }
            break;
        case Delete:
            curl_easy_setopt(_curl.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
            break;
        default:
            QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container CURL Handler:Wrong Method Selected\n");
            break;
    }
}

void QxCCurlHandler::SetStreamCallback(StreamCallback callback) { _streamCallback = std::move(callback); }

void QxCCurlHandler::SetAbortFlag(const std::atomic<bool>* flag) { _abortFlag = flag; }

std::string QxCCurlHandler::Execute() {
    std::string result;
    if (_streamCallback) {
        curl_easy_setopt(_curl.get(), CURLOPT_WRITEFUNCTION, StreamWriteCallback);
        curl_easy_setopt(_curl.get(), CURLOPT_WRITEDATA, this);
    } else {
        curl_easy_setopt(_curl.get(), CURLOPT_WRITEFUNCTION, WriteCallback);
        curl_easy_setopt(_curl.get(), CURLOPT_WRITEDATA, &result);
    }
    if (_abortFlag != nullptr) {
        curl_easy_setopt(_curl.get(), CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(_curl.get(), CURLOPT_XFERINFOFUNCTION, ProgressCallback);
        curl_easy_setopt(_curl.get(), CURLOPT_XFERINFODATA, this);
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container CURL Handler:Executing request: %s\n",
                      _url.c_str());
    callbackFailure = nullptr;
    const CURLcode code = curl_easy_perform(_curl.get());
    const std::exception_ptr failure = std::exchange(callbackFailure, nullptr);
    if (code != CURLE_OK) {
        QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                          "Quolex Container CURL Handler:Error message from CurlHandler: %s\n",
                          curl_easy_strerror(code));
    }
    curl_easy_getinfo(_curl.get(), CURLINFO_RESPONSE_CODE, &_httpCode);
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container CURL Handler:Response: %s\n",
                      result.c_str());
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container CURL Handler:HttpCode: %d\n",
                      GetHttpCode());
    return result;
}

int QxCCurlHandler::GetHttpCode() { return static_cast<int>(_httpCode); }

size_t QxCCurlHandler::WriteCallback(char* data, size_t size, size_t count, void* userdata) {
    return KeepFailure([&] {
        static_cast<std::string*>(userdata)->append(data, size * count);
        return size * count;
    });
}

size_t QxCCurlHandler::StreamWriteCallback(char* data, size_t size, size_t count, void* userdata) {
    const auto* handler = static_cast<const QxCCurlHandler*>(userdata);
    if (handler == nullptr || !handler->_streamCallback) {
        return size * count;
    }
    return KeepFailure([&] { return handler->_streamCallback(data, size * count); });
}

size_t QxCCurlHandler::ReadCallback(char* buffer, size_t size, size_t count, void* userdata) {
    return fread(buffer, size, count, static_cast<FILE*>(userdata));
}

int QxCCurlHandler::ProgressCallback(void* userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* handler = static_cast<const QxCCurlHandler*>(userdata);
    if (handler == nullptr || handler->_abortFlag == nullptr) {
        return 0;
    }
    return handler->_abortFlag->load() ? 1 : 0;
}
