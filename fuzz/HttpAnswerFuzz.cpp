// Any bytes as Podman's answer, beside bare libcurl, which gets the same bytes, and beside a plain reading of those
// answers that keep all rules. The first byte chooses who asks, how, and how much of a log is accepted.

#include "PlainJson.h"
#include "QxCContainer.h"
#include "QxCErrorManager.h"
#include "QxNContainerPaths.h"
#include "Recording.h"
#include "Support.h"

#include <curl/curl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Fuzz::Require;
using QxNContainer::QxCContainer;
using QxNContainer::QxNContainerPaths::PODMAN_SOCKET;

/// Bodies of which no more is compared: a compressed transfer makes them out of few bytes.
constexpr size_t LongestBody = 1 << 20;

/// Gives the same answer to everybody, on a thread that lasts as long as the process.
class Podman {
public:
    Podman() : _listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, PODMAN_SOCKET.c_str());
        Require(bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
        Require(listen(_listener, 16) == 0);
        std::thread([this] { Serve(); }).detach();
    }

    void SetAnswer(std::string answer) {
        const std::lock_guard lock(_mutex);
        _answer = std::move(answer);
    }

    /// Waits for the end of one more connection.
    void AwaitEnd() {
        ++_expected;
        for (int served = _served; served != _expected; served = _served) {
            _served.wait(served);
        }
    }

private:
    [[noreturn]] void Serve() {
        for (;;) {
            // accept would take the descriptor before it waits.
            pollfd arrival{_listener, POLLIN, 0};
            Require(poll(&arrival, 1, -1) == 1);
            const int client = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
            Require(client >= 0);
            std::string request;
            char bytes[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                const ssize_t count = recv(client, bytes, sizeof(bytes), 0);
                Require(count > 0);
                request.append(bytes, static_cast<size_t>(count));
            }
            {
                const std::lock_guard lock(_mutex);
                Send(client, _answer);
            }
            close(client);
            ++_served;
            _served.notify_one();
        }
    }

    static void Send(int client, std::string_view bytes) {
        for (ssize_t count = 1; !bytes.empty() && count > 0;) {
            count = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            bytes.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
        }
    }

    int _listener;
    std::mutex _mutex;
    std::string _answer;
    std::atomic<int> _served{0};
    int _expected = 0;
};

struct Answer {
    std::string body;
    long status = 0;
    bool isTooLong = false;
};

size_t Collect(char* data, size_t size, size_t count, void* target) {
    auto* answer = static_cast<Answer*>(target);
    answer->isTooLong = answer->body.size() + size * count > LongestBody;
    if (answer->isTooLong) {
        return 0;
    }
    answer->body.append(data, size * count);
    return size * count;
}

Answer AskBarely(int method) {
    Answer answer;
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, PODMAN_SOCKET.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, "http://localhost/");
    if (method == QxCCurlHandler::Post) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
    } else if (method == QxCCurlHandler::Delete) {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "DELETE");
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_easy_cleanup(curl);
    return answer;
}

// --- The plain reading ---

bool IsPrintable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// Takes a line that ends as it should off the front.
std::optional<std::string_view> TakeLine(std::string_view& text) {
    const size_t end = text.find("\r\n");
    if (end == std::string_view::npos || !IsPrintable(text.substr(0, end))) {
        return {};
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 2);
    return line;
}

std::optional<size_t> ReadNumber(std::string_view digits, int base) {
    constexpr std::string_view Digits = "0123456789abcdef";
    size_t number = 0;
    for (const char c : digits) {
        const size_t value = Digits.substr(0, static_cast<size_t>(base)).find(c);
        if (value == std::string_view::npos || digits.size() > 6) {
            return {};
        }
        number = number * static_cast<size_t>(base) + value;
    }
    return digits.empty() ? std::nullopt : std::optional(number);
}

std::optional<std::string> ReadChunks(std::string_view text) {
    std::string body;
    for (;;) {
        const auto line = TakeLine(text);
        const auto size = line ? ReadNumber(*line, 16) : std::nullopt;
        if (!size || text.size() < *size + 2 || text.substr(*size, 2) != "\r\n") {
            return {};
        }
        body += text.substr(0, *size);
        text.remove_prefix(*size + 2);
        if (*size == 0) {
            return body;
        }
    }
}

/// @return nothing for what does not keep the rules, or is not among the answers that are known here
std::optional<Answer> ReadPlainly(std::string_view text) {
    const auto first = TakeLine(text);
    if (!first || !first->starts_with("HTTP/1.1 ") || first->size() < 13 || (*first)[12] != ' ') {
        return {};
    }
    const auto status = ReadNumber(first->substr(9, 3), 10);
    if (!status || *status < 200 || *status > 599) {
        return {};
    }
    std::optional<size_t> length;
    bool isChunked = false;
    for (auto line = TakeLine(text); !line || !line->empty(); line = TakeLine(text)) {
        constexpr std::string_view Length = "Content-Length: ";
        if (!line) {
            return {};
        }
        if (line->starts_with(Length) && !length && !isChunked) {
            length = ReadNumber(line->substr(Length.size()), 10);
            if (!length) {
                return {};
            }
        } else if (*line == "Transfer-Encoding: chunked" && !length && !isChunked) {
            isChunked = true;
        } else if (!line->starts_with("X-") || line->find(": ") == std::string_view::npos) {
            return {};
        }
    }
    Answer answer{"", static_cast<long>(*status)};
    if (*status == 204 || *status == 304) {
        return answer;
    }
    if (isChunked) {
        const auto body = ReadChunks(text);
        return body ? std::optional(Answer{*body, answer.status}) : std::nullopt;
    }
    answer.body = text.substr(0, length.value_or(text.size()));
    return answer;
}

// --- Logs ---

/// Remembers what it was given to send.
class Viewer final : public QxNSmartWebApi::QxCWebSocket {
public:
    explicit Viewer(size_t limit) : accepted(limit) {}

    int sendBinary(QxCErrorListPool& /*errors*/, const unsigned char* data, unsigned int length,
                   int /*timeoutMs*/, bool /*fragment*/) override {
        wasRefused = wasRefused || messages.size() >= accepted;
        if (!wasRefused) {
            messages.emplace_back(data, data + length);
        }
        return wasRefused ? 1 : 0;
    }

    size_t accepted;
    bool wasRefused = false;
    std::vector<std::string> messages;
};

/// Cuts frames off the front; the rest stays.
std::vector<std::string> TakeFrames(std::string& body) {
    std::vector<std::string> payloads;
    const auto byte = [&](size_t at) { return size_t{static_cast<unsigned char>(body[at])}; };
    while (body.size() >= 8) {
        const size_t length = byte(4) << 24 | byte(5) << 16 | byte(6) << 8 | byte(7);
        if (body.size() - 8 < length) {
            break;
        }
        if (length > 0) {
            payloads.push_back(body.substr(8, length));
        }
        body.erase(0, 8 + length);
    }
    return payloads;
}

std::string Joined(const std::vector<std::string>& pieces) {
    std::string all;
    for (const std::string& piece : pieces) {
        all += piece;
    }
    return all;
}

void CheckLog(const Answer& expected, QxCCurlHandler::MethodType method, bool isTty, size_t accepted) {
    QxCErrorListPool& errors = *QxCErrorManager::getSingleton()->createErrorList(0, 1, 20, 5, 300);
    const auto session = std::make_shared<QxCContainer::QxSLogStreamSession>();
    session->tty = isTty;
    Viewer viewer(accepted);
    const PodmanResponse response = QxCContainer::GetInstance().StreamPodmanRequest(
        "/containers/x/logs", method, {}, errors, session, &viewer);
    Require(response.body.empty() && response.httpCode == expected.status);
    std::string rest = expected.body;
    if (isTty) {
        Require(viewer.wasRefused ? expected.body.starts_with(Joined(viewer.messages))
                                  : expected.body == Joined(viewer.messages));
        Require(session->pending.empty());
    } else {
        auto frames = TakeFrames(rest);
        Require(viewer.wasRefused == (frames.size() > accepted));
        frames.resize(std::min(frames.size(), accepted));
        Require(viewer.messages == frames);
        const std::string pending(session->pending.begin(), session->pending.end());
        Require(pending == (viewer.wasRefused ? std::string() : rest));
        Require(session->pending.capacity() <= 2 * expected.body.size() + 64);
    }
    QxCErrorManager::getSingleton()->deleteErrorList(&errors);
}

bool SaysTty(const Answer& answer) {
    const nlohmann::json container = Fuzz::ReadJson(answer.body);
    const nlohmann::json none;
    const auto member = [&](const nlohmann::json& object, const char* name) {
        return object.is_object() && object.contains(name) ? object[name] : none;
    };
    return answer.status / 100 == 2 && member(member(container, "Config"), "Tty") == true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    Fuzz::Hide("/mnt");
    Fuzz::Hide("/run");
    std::filesystem::create_directories(std::filesystem::path(PODMAN_SOCKET).parent_path());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static Podman& podman = *new Podman;
    static QxCContainer& service = QxCContainer::GetInstance();
    if (size == 0) {
        return 0;
    }
    enum Asker { Request, Inspection, Log, TtyLog };
    const int asker = data[0] & 3;
    const int chosen = data[0] >> 2 & 3;
    const auto method =
        static_cast<QxCCurlHandler::MethodType>(asker == Inspection ? QxCCurlHandler::Get : chosen);
    const size_t accepted = data[0] < 16 ? SIZE_MAX : data[0] / 16U - 1;
    const std::string answer(data + 1, data + size);
    podman.SetAnswer(answer);
    const int nextDescriptor = Fuzz::NextDescriptor();

    const Answer expected = AskBarely(method);
    podman.AwaitEnd();
    if (expected.isTooLong) {
        return 0;
    }
    if (const auto plain = ReadPlainly(answer)) {
        Require(plain->status == expected.status && plain->body == expected.body);
    }
    if (asker == Request) {
        const PodmanResponse response = service.ExecutePodmanRequest("/x", method, {}, {}, false);
        Require(response.httpCode == expected.status && response.body == expected.body);
    } else if (asker == Inspection) {
        Require(service.IsContainerTty("x") == SaysTty(expected));
    } else {
        CheckLog(expected, method, asker == TtyLog, accepted);
    }
    podman.AwaitEnd();
    Require(Fuzz::NextDescriptor() == nextDescriptor);
    Recording::Forget();
    return 0;
}
