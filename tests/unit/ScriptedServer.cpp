#include "ScriptedServer.h"

#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

namespace {

/// Reads a request off a socket piece by piece.
class RequestReader {
public:
    explicit RequestReader(int socket) : _socket(socket) {}

    std::optional<ScriptedServer::Request> Read() {
        std::optional<std::string> head = UpTo("\r\n\r\n");
        if (!head) {
            return {};
        }
        ScriptedServer::Request request;
        *head += "\r\n";
        for (size_t begin = 0, end = 0; (end = head->find("\r\n", begin)) != std::string::npos;
             begin = end + 2) {
            const std::string line = head->substr(begin, end - begin);
            if (request.line.empty()) {
                request.line = line;
            } else {
                request.headers.push_back(line);
            }
        }
        ReadBody(request);
        return request;
    }

private:
    bool Fill() {
        char bytes[65536];
        const ssize_t count = recv(_socket, bytes, sizeof(bytes), 0);
        if (count > 0) {
            _buffer.append(bytes, static_cast<size_t>(count));
        }
        return count > 0;
    }

    std::optional<std::string> UpTo(const char* delimiter) {
        size_t end = 0;
        while ((end = _buffer.find(delimiter)) == std::string::npos) {
            if (!Fill()) {
                return {};
            }
        }
        std::string text = _buffer.substr(0, end);
        _buffer.erase(0, end + strlen(delimiter));
        return text;
    }

    std::string Take(size_t count) {
        while (_buffer.size() < count && Fill()) {
        }
        std::string text = _buffer.substr(0, count);
        _buffer.erase(0, count);
        return text;
    }

    void ReadBody(ScriptedServer::Request& request) {
        if (request.Header("Expect") == "100-continue") {
            constexpr std::string_view Continue = "HTTP/1.1 100 Continue\r\n\r\n";
            send(_socket, Continue.data(), Continue.size(), MSG_NOSIGNAL);
        }
        if (const std::string length = request.Header("Content-Length"); length != "(none)") {
            request.body = Take(std::stoul(length));
        } else if (request.Header("Transfer-Encoding") == "chunked") {
            while (const auto size = UpTo("\r\n")) {
                const size_t count = std::stoul(*size, nullptr, 16);
                request.body += Take(count);
                Take(2);
                if (count == 0) {
                    return;
                }
            }
        }
    }

    int _socket;
    std::string _buffer;
};

}  // namespace

std::string ScriptedServer::Request::Header(std::string_view name) const {
    for (const std::string& header : headers) {
        if (header.size() > name.size() && header[name.size()] == ':' &&
            strncasecmp(header.data(), name.data(), name.size()) == 0) {
            return header.substr(std::min(header.find_first_not_of(' ', name.size() + 1), header.size()));
        }
    }
    return "(none)";
}

std::string ScriptedServer::Request::Target() const {
    const size_t begin = line.find(' ') + 1;
    return line.substr(begin, line.rfind(' ') - begin);
}

bool ScriptedServer::Connection::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

bool ScriptedServer::Connection::StartChunked(int status) {
    return Send("HTTP/1.1 " + std::to_string(status) + " Scripted\r\nTransfer-Encoding: chunked\r\n\r\n");
}

bool ScriptedServer::Connection::SendChunk(std::string_view bytes) {
    char size[32];
    snprintf(size, sizeof(size), "%zx\r\n", bytes.size());
    return Send(size) && Send(bytes) && Send("\r\n");
}

void ScriptedServer::Connection::WaitForEnd() {
    char byte = 0;
    while (recv(_socket, &byte, 1, 0) > 0) {
    }
}

void ScriptedServer::Connection::Pause(int ms) const { usleep(static_cast<useconds_t>(ms) * 1000); }

ScriptedServer::ScriptedServer(const std::string& path, Script script) : _script(std::move(script)) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    _listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("scripted server");
        abort();
    }
    Start();
}

ScriptedServer::ScriptedServer(Script script) : _script(std::move(script)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    _listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(_listener, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        perror("scripted server");
        abort();
    }
    getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
    _port = ntohs(address.sin_port);
    Start();
}

ScriptedServer::~ScriptedServer() {
    shutdown(_listener, SHUT_RDWR);
    _acceptor.join();
    close(_listener);
    for (Worker& worker : _workers) {
        shutdown(worker.socket, SHUT_RDWR);
    }
    CollectEnded(true);
}

std::vector<ScriptedServer::Request> ScriptedServer::Requests() const {
    const std::lock_guard lock(_mutex);
    return _requests;
}

void ScriptedServer::Start() {
    listen(_listener, 256);
    _acceptor = std::thread([this] { AcceptClients(); });
}

void ScriptedServer::AcceptClients() {
    for (;;) {
        const int client = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            return;
        }
        CollectEnded(false);
        Worker& worker = _workers.emplace_back();
        worker.socket = client;
        ++_live;
        worker.thread = std::thread([this, &worker] { Serve(worker); });
    }
}

void ScriptedServer::Serve(Worker& worker) {
    if (auto request = RequestReader(worker.socket).Read()) {
        {
            const std::lock_guard lock(_mutex);
            _requests.push_back(*request);
        }
        Connection connection(worker.socket, std::move(*request));
        _script(connection);
    }
    // The descriptor stays reserved until the thread is collected; the client sees the end now.
    shutdown(worker.socket, SHUT_RDWR);
    --_live;
    worker.ended = true;
}

void ScriptedServer::CollectEnded(bool all) {
    for (auto worker = _workers.begin(); worker != _workers.end();) {
        if (all || worker->ended) {
            worker->thread.join();
            close(worker->socket);
            worker = _workers.erase(worker);
        } else {
            ++worker;
        }
    }
}

void ScriptedServer::SendAnswer(Connection& connection, int status, std::string_view body) {
    connection.Send("HTTP/1.1 " + std::to_string(status) +
                    " Scripted\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
    connection.Send(body);
}

ScriptedServer::Script ScriptedServer::Answer(int status, std::string body) {
    return [status, body = std::move(body)](Connection& connection) { SendAnswer(connection, status, body); };
}

ScriptedServer::Script ScriptedServer::Echo() {
    return [](Connection& connection) { SendAnswer(connection, 200, connection.request.body); };
}
