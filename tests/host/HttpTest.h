#pragma once

#include "HttpClient.h"
#include "TestServer.h"
#include "http/UploadFile.h"

#include <gmock/gmock.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

/// A server with a few requests, and clients of it.
class HttpTest : public testing::Test {
protected:
    using Answer = HttpClient::Answer;
    using Reply = QxNHttp::Reply;
    using Request = QxNHttp::Request;
    using Right = QxNHttp::Right;
    using Verb = QxNHttp::Verb;
    template <typename T>
    using Task = QxNHttp::Task<T>;

    static constexpr size_t LongestText = 100000;
    static constexpr size_t LongestFile = 1 << 20;
    static constexpr const char* Uploads = "/tmp/uploads";

    HttpTest() {
        auto& router = server.router;
        router.Add(Verb::get, "/hello", Right::None,
                   [](Request&) -> Task<Reply> { co_return TextReply("hello"); });
        // What the server understood.
        router.Add(Verb::get, "/names/{name}", Right::None, [](Request& request) -> Task<Reply> {
            std::string text = request.segments.at(3);
            for (const auto& [name, value] : request.query) {
                text += "&" + name + "=" + value;
            }
            co_return TextReply(text);
        });
        router.Add(Verb::get, "/client", Right::Look,
                   [](Request& request) -> Task<Reply> { co_return TextReply(request.client.name); });
        router.Add(Verb::post, "/client", Right::Act,
                   [](Request& request) -> Task<Reply> { co_return TextReply(request.client.name); });
        router.Add(Verb::post, "/text", Right::None, [](Request& request) -> Task<Reply> {
            std::string text = co_await request.body->Text(LongestText);
            co_return TextReply(std::move(text));
        });
        router.Add(Verb::post, "/unread", Right::None,
                   [](Request&) -> Task<Reply> { co_return TextReply("unread"); });
        router.Add(Verb::put, "/files/{name}", Right::None, [this](Request& request) -> Task<Reply> {
            auto file = co_await request.body->ToFile(Uploads, longestFile);
            const std::string path = std::string(Uploads) + "/" + request.segments.at(3);
            const bool replaces = co_await QxNHttp::Place(file, path);
            co_return Reply::Empty(replaces ? QxNHttp::Status::no_content : QxNHttp::Status::created);
        });
        router.Add(Verb::get, "/large", Right::None,
                   [](Request&) -> Task<Reply> { co_return TextReply(std::string(64 << 20, 'x')); });
    }

    static Reply TextReply(std::string text) {
        Reply reply;
        reply.type = "text/plain";
        reply.body = std::move(text);
        return reply;
    }

    /// @param more  header fields, each with its line end
    static std::string Get(const std::string& target, const std::string& more = {}) {
        return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + more + "\r\n";
    }

    static std::string WithBody(const std::string& start, const std::string& body) {
        return start + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n" + body;
    }

    /// A request that asks for a WebSocket.
    static std::string Upgrade(const std::string& target, const std::string& more = {}) {
        return Get(target,
                   "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                   "Sec-WebSocket-Key: MDEyMzQ1Njc4OWFiY2RlZg==\r\n" +
                       more);
    }

    /// The answer to a request over a connection of its own.
    Answer Ask(const std::string& request) {
        HttpClient client(server.port);
        return client.Ask(request);
    }

    static std::vector<std::string> FilesIn(const std::string& directory) {
        std::vector<std::string> names;
        std::error_code none;
        for (const auto& entry : std::filesystem::directory_iterator(directory, none)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    /// Whether nobody is connected any more, after a while.
    bool IsDeserted() {
        return Sandbox::Eventually([this] { return server.Clients() == 0; });
    }

    std::uint64_t longestFile = LongestFile;  ///< to be changed before the server serves
    TestServer server;
};
