#include "QxCContainer.h"
#include "api/Checks.h"
#include "api/Cores.h"
#include "api/Interface.h"
#include "api/Openapi.h"

#include <unistd.h>
#include <fstream>
#include <sstream>

using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNHttp::WebSocket;
using QxNJson::json;

namespace {

constexpr std::uint64_t DefaultTail = 100;
constexpr std::uint64_t MostTail = 10000;

/// @param after  number of the last message that is known
json MessagesAfter(const MessageFollower& follower, std::uint64_t& after) {
    json messages = json::array();
    for (const MessageFollower::Message& message : follower.Messages()) {
        if (message.number > after) {
            messages.push_back(message.content);
            after = message.number;
        }
    }
    return messages;
}

/// @return the number before that of the first of the last `tail` messages
std::uint64_t Before(const MessageFollower& follower, std::uint64_t tail) {
    const auto& messages = follower.Messages();
    const std::uint64_t last = messages.empty() ? 0 : messages.back().number;
    return last > tail ? last - tail : 0;
}

Task<void> FollowMessages(const Ground& ground, std::uint64_t last, WebSocket& socket) {
    for (;;) {
        json news = json::object();
        news["type"] = "messages";
        news["messages"] = MessagesAfter(ground.messages, last);
        co_await socket.Send(news.dump());
        if (ground.messages.Messages().empty() || ground.messages.Messages().back().number == last) {
            co_await ground.messages.WaitForMore();
        }
    }
}

std::uint64_t ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::string Metrics(const Ground& ground) {
    std::ostringstream text;
    const auto gauge = [&](const char* name, const char* help, auto value, const char* type = "gauge") {
        text << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n'
             << name << ' ' << value << '\n';
    };
    gauge("qx_podman_up", "Whether Podman answered the last question.", ground.keeper.IsAnswering() ? 1 : 0);
    gauge("qx_service_enabled", "Whether the container service is enabled.",
          ground.keeper.Service().IsContainerServiceEnabled(false) ? 1 : 0);
    gauge("qx_podman_restarts_total", "Restarts of Podman by the daemon.", ground.keeper.Restarts(),
          "counter");
    gauge("qx_log_streams", "Log streams that Podman serves.", ground.logs.Streams());
    gauge("qx_log_viewers", "Clients that look at logs.", ground.logs.Viewers());
    gauge("qx_messages_total", "Messages for the user of the board since the daemon started.",
          ground.messages.Messages().empty() ? 0 : ground.messages.Messages().back().number, "counter");
    gauge("process_resident_memory_bytes", "Resident memory of the daemon.", ResidentBytes());
    return text.str();
}

}  // namespace

void AddBoardRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/check", Right::Look, [&ground](Request&) -> Task<Reply> {
        const json checks = co_await CheckBoard(ground);
        co_return JsonReply(checks);
    });
    router.Add(Verb::get, "/cores", Right::Look, [&ground](Request&) -> Task<Reply> {
        const unsigned configured = ground.keeper.Settings().coresNum;
        const unsigned most = ground.keeper.Service().GetMaxAllowedCpuCoreCount();
        const json cores = co_await OnWorker(ground, [=] { return DescribeCores(configured, most); });
        co_return JsonReply(cores);
    });
    router.Add(Verb::get, "/messages", Right::Look, [&ground](Request& request) -> Task<Reply> {
        std::uint64_t last = Before(ground.messages, request.Number("tail", DefaultTail, MostTail));
        json answer = json::object();
        answer["messages"] = MessagesAfter(ground.messages, last);
        co_return JsonReply(answer);
    });
    router.AddStream("/messages", Right::Look, [&ground](Request& request) -> Task<QxNHttp::Router::Stream> {
        const std::uint64_t last = Before(ground.messages, request.Number("tail", DefaultTail, MostTail));
        co_return [&ground, last](WebSocket& socket) { return FollowMessages(ground, last, socket); };
    });
    router.Add(Verb::get, "/metrics", Right::Look, [&ground](Request&) -> Task<Reply> {
        Reply reply;
        reply.type = "text/plain; version=0.0.4; charset=utf-8";
        reply.body = Metrics(ground);
        co_return reply;
    });
    router.Add(Verb::get, "/openapi.yaml", Right::None, [](Request&) -> Task<Reply> {
        Reply reply;
        reply.type = "application/yaml";
        reply.body = OpenapiDescription;
        co_return reply;
    });
}

QxNHttp::Router MakeRouter(Ground& ground) {
    QxNHttp::Router router;
    AddServiceRequests(router, ground);
    AddBoardRequests(router, ground);
    AddLogRequests(router, ground);
    AddContainerRequests(router, ground);
    AddImageRequests(router, ground);
    AddComposeRequests(router, ground);
    AddPluginRequests(router, ground);
    AddAccessRequests(router, ground);
    return router;
}
