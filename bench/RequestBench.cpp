// One request to Podman's socket, with a short answer and with a long one, beside libcurl doing the same with a fresh
// handle. Podman is a thread here.

#include "QxCContainer.h"
#include "QxNContainerPaths.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

namespace {

using QxNContainer::QxCContainer;
using QxNContainer::QxNContainerPaths::PODMAN_SOCKET;

/// A question and how long its answer is.
struct Question {
    const char* endpoint;
    size_t answerSize;
};

constexpr Question Short{"/containers/json", 2000};
constexpr Question Long{"/images/export", 64 << 20};
constexpr const char* Accept = "Accept: application/json";

void Require(bool ok, const char* step) {
    if (!ok) {
        perror(step);
        exit(1);
    }
}

/// Empty directories of this process's own where the service looks for files, so that the machine's stay as
/// they are.
void MakePlaces() {
    Require(unshare(CLONE_NEWNS) == 0, "unshare");
    Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
    for (const char* place : {"/run", "/mnt"}) {
        Require(mount("tmpfs", place, "tmpfs", 0, nullptr) == 0, place);
    }
    std::filesystem::create_directories(std::filesystem::path(PODMAN_SOCKET).parent_path());
}

std::string AnswerTo(const Question& question) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(question.answerSize) + "\r\n\r\n" +
           std::string(question.answerSize, 'x');
}

void SendAll(int client, std::string_view answer) {
    while (!answer.empty()) {
        const ssize_t sent = send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return;
        }
        answer.remove_prefix(static_cast<size_t>(sent));
    }
}

void AnswerOne(int client, std::string_view shortAnswer, std::string_view longAnswer) {
    std::string request;
    char bytes[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t count = recv(client, bytes, sizeof(bytes), 0);
        if (count <= 0) {
            break;
        }
        request.append(bytes, static_cast<size_t>(count));
    }
    SendAll(client, request.find(Long.endpoint) == std::string::npos ? shortAnswer : longAnswer);
    close(client);
}

void StartPodman() {
    MakePlaces();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    PODMAN_SOCKET.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Require(listen(listener, 16) == 0, "listen");
    std::thread([listener] {
        const std::string shortAnswer = AnswerTo(Short);
        const std::string longAnswer = AnswerTo(Long);
        for (;;) {
            AnswerOne(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), shortAnswer, longAnswer);
        }
    }).detach();
}

/// Starts the answering thread with the first benchmark.
QxCContainer& Service() {
    static QxCContainer& service = (StartPodman(), QxCContainer::GetInstance());
    return service;
}

void Execute(benchmark::State& state, const Question& question) {
    QxCContainer& service = Service();
    for (auto _ : state) {
        const PodmanResponse response =
            service.ExecutePodmanRequest(question.endpoint, QxCCurlHandler::Get, {Accept}, {}, false);
        if (response.httpCode != 200 || response.body.size() != question.answerSize) {
            state.SkipWithError("no answer");
        }
    }
}

size_t Append(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

void BareCurl(benchmark::State& state, const Question& question) {
    Service();
    const std::string url = std::string("http://localhost/v5.8.1") + question.endpoint;
    for (auto _ : state) {
        std::string body;
        long status = 0;
        CURL* curl = curl_easy_init();
        curl_slist* headers = curl_slist_append(nullptr, Accept);
        curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, PODMAN_SOCKET.c_str());
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_slist_free_all(headers);
        curl_easy_cleanup(curl);
        if (status != 200 || body.size() != question.answerSize) {
            state.SkipWithError("no answer");
        }
    }
}

// Real time: most of it passes in the other thread. Long answers take turns with that thread thousands of times, which
// any load of the machine upsets: they are measured longer than others.
constexpr double LongRun = 1.5;  // seconds

BENCHMARK_CAPTURE(Execute, Short, Short)->Name("PodmanRequest/ours")->UseRealTime();
BENCHMARK_CAPTURE(BareCurl, Short, Short)->Name("PodmanRequest/bare")->UseRealTime();
BENCHMARK_CAPTURE(Execute, Long, Long)->Name("PodmanAnswerOf64MiB/ours")->UseRealTime()->MinTime(LongRun);
BENCHMARK_CAPTURE(BareCurl, Long, Long)->Name("PodmanAnswerOf64MiB/bare")->UseRealTime()->MinTime(LongRun);

}  // namespace
