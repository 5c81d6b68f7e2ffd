#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// The daemon as a test wants it: remembers every request and answers as it was told. Below /api/v1.
class ScriptedDaemon {
public:
    struct Request {
        std::string method;
        std::string target;  ///< what comes after /api/v1; a target elsewhere is whole
        std::string body;
        std::string contentType;
        std::string authorization;
        std::string host;
        bool isWebSocket = false;

        /// @return such as "POST /tokens {...}"
        std::string Text() const { return method + " " + target + (body.empty() ? "" : " " + body); }
    };

    struct Answer {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        int delayMs = 0;
    };

    /// A WebSocket, as its script sees it. It is closed when the script ends.
    class Live {
    public:
        virtual ~Live() = default;
        virtual void Send(const std::string& text) = 0;
        /// Bytes beside the protocol.
        virtual void SendRaw(const std::string& bytes) = 0;
        /// Ends the connection without saying so.
        virtual void Drop() = 0;
        /// Waits until the client is gone.
        virtual void WaitForEnd() = 0;
    };
    using Script = std::function<void(Live&)>;

    /// On the Unix socket that the tool takes by itself.
    ScriptedDaemon();
    enum class Network { Plain, Tls };
    /// On a free port of 127.0.0.1. The certificate for TLS is in /run/daemon.crt, made for localhost and 127.0.0.1.
    explicit ScriptedDaemon(Network network);
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;
    ~ScriptedDaemon();

    static constexpr const char* Socket = "/run/qxcontainerd/api.sock";
    static Answer Problem(int status, const std::string& detail);

    /// @param request  method and target, such as "GET /service"
    void On(const std::string& request, Answer answer);
    /// The next WebSocket with this target runs the script; those that come later the later ones.
    void OnLive(const std::string& target, Script script);

    unsigned short Port() const { return _port; }
    std::vector<Request> Requests() const;
    /// @return the requests as texts, each in a line
    std::string Log() const;

private:
    struct Worker {
        std::thread thread;
        int socket = -1;
    };

    void Listen(int listener);
    void AcceptClients();
    void Serve(int socket);
    template <typename Stream>
    void ServeStream(Stream& stream, int socket);
    Answer AnswerFor(const Request& request) const;
    Script ScriptFor(const Request& request);

    mutable std::mutex _mutex;
    std::map<std::string, Answer> _answers;
    std::map<std::string, std::list<Script>> _scripts;
    std::vector<Request> _requests;
    std::list<Worker> _workers;
    int _listener = -1;
    unsigned short _port = 0;
    bool _isTls = false;
    bool _isLocal = false;
    std::thread _acceptor;
};
