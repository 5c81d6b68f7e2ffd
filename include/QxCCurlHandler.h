#pragma once

#include "QxExport.h"

#include <curl/curl.h>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Owner of one libcurl easy handle that performs one HTTP request against a local service.
///
/// Setters act on the handle at once. Failures of a transfer show only as status code 0 and an empty or
/// partial body (and as a DEBUG_VERBOSE line). Thread safety: one handler belongs to one thread; only the
/// abort flag may be written by another.
class QX_EXPORT QxCCurlHandler {
public:
    /// HTTP method of the request.
    enum MethodType : int {
        Get = 0,     ///< CURLOPT_HTTPGET
        Post = 1,    ///< CURLOPT_POST
        Delete = 2,  ///< CURLOPT_CUSTOMREQUEST "DELETE"
    };

    /// Receives body bytes as they arrive; any other result than the byte count ends the transfer.
    using StreamCallback = std::function<size_t(const char* data, size_t length)>;

    QxCCurlHandler();
    QxCCurlHandler(const QxCCurlHandler&) = delete;
    QxCCurlHandler& operator=(const QxCCurlHandler&) = delete;
    ~QxCCurlHandler();

    /// @param url  copied
    void SetUrl(const std::string& url);
    /// Sends the request to a Unix domain socket, whatever host the URL names; replaces SetTcpSocket.
    void SetUnixSocket(const std::string& path);
    /// Sends the request to 127.0.0.1 on a port, whatever host the URL names; replaces SetUnixSocket.
    /// When the environment names a proxy (http_proxy), that is asked for a tunnel to the port, unless no_proxy excepts
    /// the URL's host.
    void SetTcpSocket(unsigned short port);
    /// Replaces all custom header lines; an empty vector clears them.
    void SetHeaders(const std::vector<std::string>& headers);
    /// Sends a text as the request body; copied.
    void SetPayload(const std::string& payload);
    /// Sends a file as the request body, with its size at the time of the call; libcurl makes a GET request a
    /// POST then. A file that cannot be opened, a directory or a named pipe is logged and leaves the request
    /// as it was. The file must not shrink before Execute() has returned: the server would wait for the rest.
    void UploadFile(const std::string& path);
    /// Replaces the method; a value that is none of MethodType is logged and leaves libcurl's default. A POST
    /// without payload and file has an empty body.
    void SetMethodType(const MethodType& method);
    /// Hands body bytes to `callback` as they arrive instead of collecting them; empty switches back. What it
    /// throws ends the transfer and leaves Execute().
    void SetStreamCallback(StreamCallback callback);
    /// Ends the transfer soon after the flag reads true, also while no data flows.
    /// @param flag  not owned, must outlive Execute(); null for none
    void SetAbortFlag(const std::atomic<bool>* flag);

    /// Performs the request; blocks until it ends, without a time limit of its own.
    /// @return the response body; empty when a stream callback received it
    /// @throws what the stream callback throws; std::bad_alloc or std::length_error for a body too large
    std::string Execute();

    /// @return the HTTP status code of the last Execute(); 0 when no response arrived
    int GetHttpCode();

private:
    friend struct CurlHandlerTest;

    struct CurlDeleter {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    };
    struct FileDeleter {
        void operator()(FILE* file) const { fclose(file); }
    };
    struct HeaderDeleter {
        void operator()(curl_slist* list) const {
            if (list != nullptr) {
                curl_slist_free_all(list);
            }
        }
    };

    /// Where the request's body comes from.
    enum class Body { None, Payload, File };

    static size_t WriteCallback(char* data, size_t size, size_t count, void* userdata);
    static size_t StreamWriteCallback(char* data, size_t size, size_t count, void* userdata);
    static size_t ReadCallback(char* buffer, size_t size, size_t count, void* userdata);
    static int ProgressCallback(void* userdata, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                                curl_off_t ulnow);

    std::unique_ptr<CURL, CurlDeleter> _curl;
    std::unique_ptr<FILE, FileDeleter> _uploadFile;
    std::unique_ptr<curl_slist, HeaderDeleter> _headers;
    std::unique_ptr<curl_slist, HeaderDeleter> _connectTo;
    long _httpCode = 0;
    std::string _payload;
    std::string _url;
    StreamCallback _streamCallback;
    const std::atomic<bool>* _abortFlag = nullptr;
    Body _body = Body::None;
};
