#include "Client.h"

#include "Answers.h"
#include "CtlError.h"
#include "Refusal.h"

#include <curl/curl.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr size_t LargestAnswer = 64UL * 1024 * 1024;
constexpr long ConnectTimeoutMs = 10000;
/// Long work may take any time, but when the daemon has not been heard of for so long it is given up.
constexpr long LongSilenceSeconds = 3600;

using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;
using File = std::unique_ptr<FILE, decltype(&fclose)>;

void Append(HeaderList& headers, const std::string& line) {
    curl_slist* const longer = curl_slist_append(headers.get(), line.c_str());
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(headers.release());
    headers.reset(longer);
}

File Open(const std::string& path, curl_off_t& size) {
    File file(fopen(path.c_str(), "rbe"), &fclose);
    struct stat status {};
    if (file == nullptr || fstat(fileno(file.get()), &status) != 0) {
        throw CtlError(ExitCode::Failed, "cannot read '" + path + "': " + strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw CtlError(ExitCode::Failed, "cannot read '" + path + "': it is no regular file");
    }
    size = status.st_size;
    return file;
}

}  // namespace

/// One request on its way.
struct Client::Transfer {
    const HttpRequest& request;
    CURL* curl;
    HttpAnswer answer{};
    File file{nullptr, &fclose};
    curl_off_t fileSize = 0;
    HeaderList headers{nullptr, &curl_slist_free_all};
    bool isTooLarge = false;
    bool hasEnough = false;
    bool isUnreadable = false;
    std::exception_ptr failure{};
    char problem[CURL_ERROR_SIZE] = "";

    bool Receive(std::string_view bytes) {
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (request.sink && status == 200) {
            hasEnough = !request.sink(bytes);
            return !hasEnough;
        }
        isTooLarge = bytes.size() > LargestAnswer - answer.body.size();
        if (!isTooLarge) {
            answer.body += bytes;
        }
        return !isTooLarge;
    }

    static size_t OnBody(char* data, size_t, size_t size, void* self) {
        auto& transfer = *static_cast<Transfer*>(self);
        try {
            return transfer.Receive({data, size}) ? size : CURL_WRITEFUNC_ERROR;
        } catch (...) {
            transfer.failure = std::current_exception();
            return CURL_WRITEFUNC_ERROR;
        }
    }

    static size_t OnUpload(char* data, size_t, size_t size, void* self) {
        auto& transfer = *static_cast<Transfer*>(self);
        const size_t count = fread(data, 1, size, transfer.file.get());
        transfer.isUnreadable = ferror(transfer.file.get()) != 0;
        return transfer.isUnreadable ? CURL_READFUNC_ABORT : count;
    }

    static int OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
        const auto& transfer = *static_cast<Transfer*>(self);
        transfer.request.progress->Update(static_cast<std::uint64_t>(sent),
                                          static_cast<std::uint64_t>(transfer.fileSize));
        return 0;
    }

    void SetConnection(const Endpoint& endpoint) {
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, problem);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_PROXY, "");
        curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
        curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, ConnectTimeoutMs);
        curl_easy_setopt(curl, CURLOPT_URL, (endpoint.BaseUrl() + request.target).c_str());
        if (endpoint.IsLocalSocket()) {
            curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, endpoint.socketPath.c_str());
        }
        if (!endpoint.caFile.empty()) {
            curl_easy_setopt(curl, CURLOPT_CAINFO, endpoint.caFile.c_str());
        }
        if (!endpoint.token.empty()) {
            Append(headers, "Authorization: Bearer " + endpoint.token);
        }
    }

    void SetTimes() {
        if (request.sink) {
            // Any size takes any time, as long as something comes.
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, request.timeoutMs / 1000);
        } else if (request.progress == nullptr) {
            curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, request.timeoutMs);
        } else {
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, LongSilenceSeconds);
            curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
            curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &OnProgress);
            curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
        }
    }

    void SetBody() {
        if (!request.contentType.empty()) {
            Append(headers, "Content-Type: " + request.contentType);
        }
        if (!request.file.empty()) {
            file = Open(request.file, fileSize);
            curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, &OnUpload);
            curl_easy_setopt(curl, CURLOPT_READDATA, this);
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, fileSize);
        } else if (request.method != "GET" && request.method != "DELETE") {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            if (request.contentType.empty()) {
                Append(headers, "Content-Type:");
            }
        }
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }

    void Perform(const Endpoint& endpoint) {
        SetConnection(endpoint);
        SetTimes();
        SetBody();
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OnBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
        const CURLcode code = curl_easy_perform(curl);
        if (request.progress != nullptr) {
            request.progress->Finish();
        }
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
        if (code != CURLE_OK && !hasEnough) {
            Fail(endpoint, code);
        }
    }

    [[noreturn]] void Fail(const Endpoint& endpoint, CURLcode code) {
        if (failure) {
            std::rethrow_exception(failure);
        }
        if (isTooLarge) {
            Answers::Malformed("it has more than 64 MiB");
        }
        if (isUnreadable) {
            throw CtlError(ExitCode::Failed, "cannot read '" + request.file + "'");
        }
        // An answer that came although the body was not wanted any more says why.
        if (answer.status >= 400 && (code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR)) {
            throw Refusal(answer.status, answer.body);
        }
        if (code == CURLE_WEIRD_SERVER_REPLY || code == CURLE_UNSUPPORTED_PROTOCOL ||
            code == CURLE_BAD_CONTENT_ENCODING) {
            Answers::Malformed("it is no HTTP");
        }
        long systemError = 0;
        if (code == CURLE_COULDNT_CONNECT) {
            curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &systemError);
        }
        throw Unreachable(endpoint, problem[0] != '\0' ? problem : curl_easy_strerror(code),
                          static_cast<int>(systemError));
    }
};

QxNJson::json HttpAnswer::Json() const { return Answers::Parse(body); }

Client::Client(Endpoint endpoint)
    : _endpoint(std::move(endpoint)), _curl(curl_easy_init(), &curl_easy_cleanup) {
    if (_curl == nullptr) {
        throw std::bad_alloc();
    }
}

Client::~Client() = default;

HttpAnswer Client::Send(const HttpRequest& request) {
    curl_easy_reset(_curl.get());
    Transfer transfer{request, _curl.get()};
    transfer.Perform(_endpoint);
    if (transfer.answer.status < 200 || transfer.answer.status >= 300) {
        throw Refusal(transfer.answer.status, transfer.answer.body);
    }
    return std::move(transfer.answer);
}
