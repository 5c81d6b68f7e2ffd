#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// A small HTTP/1.1 server in the test process: remembers every request and answers as a script says.
class ScriptedServer {
public:
    struct Request {
        std::string line;                  ///< such as "GET /path HTTP/1.1"
        std::vector<std::string> headers;  ///< whole lines, without line feeds
        std::string body;

        /// @return the value of a header, or "(none)"
        std::string Header(std::string_view name) const;
        std::string Target() const;
    };

    /// One connection, as its script sees it.
    class Connection {
    public:
        Connection(int socket, Request received) : request(std::move(received)), _socket(socket) {}

        /// @return false when the client is gone
        bool Send(std::string_view bytes);
        /// Sends an answer's head with a chunked body to come.
        bool StartChunked(int status = 200);
        bool SendChunk(std::string_view bytes);
        bool EndChunks() { return Send("0\r\n\r\n"); }
        /// Waits until the client has closed the connection or the server ends.
        void WaitForEnd();
        void Pause(int ms) const;

        const Request request;

    private:
        int _socket;
    };

    using Script = std::function<void(Connection&)>;

    /// Listens on a Unix socket; missing directories are made.
    ScriptedServer(const std::string& path, Script script);
    /// Listens on a free port of 127.0.0.1.
    explicit ScriptedServer(Script script);
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    /// Ends every connection.
    ~ScriptedServer();

    unsigned short Port() const { return _port; }
    /// @return the requests received so far; the body of one may be incomplete when its connection broke
    std::vector<Request> Requests() const;
    /// @return connections whose script has not ended
    int LiveConnections() const { return _live; }

    /// A script that gives one answer with a length.
    static Script Answer(int status, std::string body = {});
    static void SendAnswer(Connection& connection, int status, std::string_view body);
    /// A script that answers with the request's body.
    static Script Echo();

private:
    struct Worker {
        std::thread thread;
        int socket;
        std::atomic<bool> ended{false};
    };

    void Start();
    void AcceptClients();
    void Serve(Worker& worker);
    void CollectEnded(bool all);

    const Script _script;
    int _listener = -1;
    unsigned short _port = 0;
    std::thread _acceptor;
    mutable std::mutex _mutex;
    std::list<Worker> _workers;
    std::vector<Request> _requests;
    std::atomic<int> _live{0};
};
