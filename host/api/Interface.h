#pragma once

#include "QxCCurlHandler.h"
#include "QxNJson.h"
#include "api/StreamThreads.h"
#include "daemon/MessageFollower.h"
#include "daemon/ServiceKeeper.h"
#include "http/Background.h"
#include "http/Router.h"
#include "http/Tokens.h"
#include "logs/LogHub.h"

#include <boost/asio/thread_pool.hpp>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

struct PodmanResponse;

/// What the interface's parts work with. Lives as long as the server.
struct Ground {
    ServiceKeeper& keeper;
    MessageFollower& messages;
    LogHub& logs;
    StreamThreads& streams;
    QxNHttp::Tokens& tokens;
    boost::asio::thread_pool& workers;  ///< for what blocks for a short time
    boost::asio::thread_pool& podman;   ///< for requests to Podman, which may hang
    boost::asio::thread_pool& compose;  ///< for operations on projects, which take minutes
    std::string page;                   ///< the page's directory
    std::string certificate;            ///< of the interface; empty without TLS
    std::string certificateKey;
    std::uint64_t largestUpload;  ///< bytes
    std::set<std::string> busyProjects = {};
    /// Plugins by name and version that were activated or deactivated since the start: whether they are deactivated.
    std::map<std::pair<std::string, std::string>, bool> switchedPlugins = {};
};

/// Each adds the requests of its part of the interface.
void AddServiceRequests(QxNHttp::Router& router, Ground& ground);
void AddBoardRequests(QxNHttp::Router& router, Ground& ground);
void AddContainerRequests(QxNHttp::Router& router, Ground& ground);
void AddLogRequests(QxNHttp::Router& router, Ground& ground);
void AddImageRequests(QxNHttp::Router& router, Ground& ground);
void AddComposeRequests(QxNHttp::Router& router, Ground& ground);
void AddPluginRequests(QxNHttp::Router& router, Ground& ground);
void AddAccessRequests(QxNHttp::Router& router, Ground& ground);

/// All of them.
QxNHttp::Router MakeRouter(Ground& ground);

// --- What several parts need ---

inline QxNHttp::Reply JsonReply(const QxNJson::json& value, QxNHttp::Status status = QxNHttp::Status::ok) {
    QxNHttp::Reply reply;
    reply.status = status;
    reply.body = value.dump();
    return reply;
}

/// @param longest  bytes
/// @throws Problem when the body is no JSON object
QxNHttp::Task<QxNJson::json> ReadObject(QxNHttp::Request& request, size_t longest = 64 << 10);

/// @return the name as it is
/// @throws Problem when it breaks the rule for file names
const std::string& FileName(const std::string& name);

/// Runs something that blocks for a short time beside the control thread.
template <typename Function>
auto OnWorker(Ground& ground, Function function) {
    return QxNHttp::InBackground(ground.workers, std::move(function));
}

/// @throws Problem when Podman did not answer the last question: at once, before anything waits for it
void RequirePodman(const ServiceKeeper& keeper);
/// @throws Problem when the user storage is not there: what is written then would lie somewhere else
void RequireUserStorage(ServiceKeeper& keeper);

/// What a request to Podman takes. With a constructor, because GCC 12 destroys temporary aggregates twice in expressions
/// that suspend.
struct PodmanAsk {
    explicit PodmanAsk(std::string where) : endpoint(std::move(where)) {}

    std::string endpoint;
    QxCCurlHandler::MethodType method = QxCCurlHandler::Get;
    std::vector<std::string> headers;
    std::string uploadPath;
    bool writeThrough = false;
    std::chrono::seconds deadline{30};  ///< after which the client is told; Podman goes on
};

/// @throws Problem when Podman does not answer, or answers with an error
QxNHttp::Task<PodmanResponse> AskPodman(Ground& ground, const PodmanAsk& ask);
/// @return Podman's answer, which is JSON
QxNHttp::Task<QxNJson::json> AskPodmanForJson(Ground& ground, const PodmanAsk& ask);

/// Members of Podman's answers, which may be missing or of another type.
std::string TextMember(const QxNJson::json& object, const char* name);
std::int64_t NumberMember(const QxNJson::json& object, const char* name);
QxNJson::json Member(const QxNJson::json& object, const char* name);
