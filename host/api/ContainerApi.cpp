#include "QxCContainer.h"
#include "api/Interface.h"
#include "api/Names.h"
#include "http/Clock.h"

#include <algorithm>
#include <cctype>
#include <map>

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

/// Stopping may take as long as the container's own time for it.
constexpr std::chrono::seconds ActionDeadline{300};
constexpr std::int64_t MostPorts = 65535;

/// @return a port, or several next to each other
std::string PortText(std::int64_t first, std::int64_t count) {
    return std::to_string(first) + (count > 1 ? "-" + std::to_string(first + count - 1) : "");
}

/// Podman joins ports that are next to each other on both sides.
json PortTexts(const json& ports) {
    json texts = json::array();
    if (ports.is_array()) {
        for (const auto& value : ports) {
            const json port = value;
            const std::string host = TextMember(port, "host_ip");
            const std::int64_t hostPort = NumberMember(port, "host_port");
            const std::int64_t count = std::clamp<std::int64_t>(NumberMember(port, "range"), 1, MostPorts);
            texts.push_back(
                (hostPort == 0 ? "" : (host.empty() ? "" : host + ":") + PortText(hostPort, count) + "->") +
                PortText(NumberMember(port, "container_port"), count) + "/" + TextMember(port, "protocol"));
        }
    }
    return texts;
}

/// Podman leaves "Status" empty.
std::string StatusText(const json& container) {
    const std::string state = TextMember(container, "State");
    const auto since = [&](const char* member) {
        return QxNHttp::DurationText(std::chrono::system_clock::now() -
                                     std::chrono::system_clock::from_time_t(NumberMember(container, member)));
    };
    if (state == "running") {
        return "Up " + since("StartedAt");
    }
    if (state == "exited") {
        return "Exited (" + std::to_string(NumberMember(container, "ExitCode")) + ") " + since("ExitedAt") +
               " ago";
    }
    return state.empty() ? state
                         : std::string(1, static_cast<char>(std::toupper(state[0]))) + state.substr(1);
}

json Describe(const json& container) {
    const json names = Member(container, "Names");
    const json labels = Member(container, "Labels");
    const bool isCompose = !TextMember(labels, "com.docker.compose.project").empty();
    json object = json::object();
    object["id"] = TextMember(container, "Id");
    object["name"] =
        names.is_array() && !names.empty() && names[0].is_string() ? names[0].get<std::string>() : "";
    object["image"] = TextMember(container, "Image");
    object["state"] = TextMember(container, "State");
    object["status"] = StatusText(container);
    object["created"] = TextMember(container, "Created");
    const std::int64_t startedAt = NumberMember(container, "StartedAt");
    object["startedAt"] =
        startedAt > 0 ? QxNHttp::TimeText(std::chrono::system_clock::from_time_t(startedAt)) : "";
    object["exitCode"] = NumberMember(container, "ExitCode");
    object["project"] =
        TextMember(labels, isCompose ? "com.docker.compose.project" : "io.podman.compose.project");
    object["ports"] = PortTexts(Member(container, "Ports"));
    return object;
}

Task<Reply> Act(Ground& ground, const std::string& container, const std::string& action) {
    static const std::set<std::string> Actions{"start", "stop", "restart"};
    if (Actions.count(action) == 0) {
        throw Problem(Status::not_found, "A container can be started, stopped and restarted.");
    }
    // 304 says that there was nothing to do.
    PodmanAsk ask("/libpod/containers/" + ContainerName(container) + "/" + action);
    ask.method = QxCCurlHandler::Post;
    ask.deadline = ActionDeadline;
    co_await AskPodman(ground, ask);
    co_return Reply::Empty();
}

}  // namespace

Task<json> ListContainers(Ground& ground) {
    const PodmanAsk ask("/libpod/containers/json?all=true");
    const json answer = co_await AskPodmanForJson(ground, ask);
    std::multimap<std::string, json> sorted;
    if (answer.is_array()) {
        for (const auto& value : answer) {
            json container = Describe(value);
            std::string name = container["name"].get<std::string>();
            sorted.emplace(std::move(name), std::move(container));
        }
    }
    json list = json::array();
    for (auto& [name, container] : sorted) {
        list.push_back(std::move(container));
    }
    co_return list;
}

void AddContainerRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/containers", Right::Look, [&ground](Request&) -> Task<Reply> {
        json answer = json::object();
        answer["containers"] = co_await ListContainers(ground);
        co_return JsonReply(answer);
    });
    router.Add(Verb::get, "/containers/{container}", Right::Look, [&ground](Request& request) -> Task<Reply> {
        const PodmanAsk ask("/libpod/containers/" + ContainerName(request.segments[3]) + "/json");
        const json answer = co_await AskPodmanForJson(ground, ask);
        co_return JsonReply(answer);
    });
    router.Add(Verb::delete_, "/containers/{container}", Right::Act,
               [&ground](Request& request) -> Task<Reply> {
                   const std::string force = request.Flag("force", false) ? "true" : "false";
                   PodmanAsk removal("/containers/" + ContainerName(request.segments[3]) + "?force=" + force);
                   removal.method = QxCCurlHandler::Delete;
                   removal.deadline = ActionDeadline;
                   co_await AskPodman(ground, removal);
                   co_return Reply::Empty();
               });
    router.Add(Verb::post, "/containers/{container}/{action}", Right::Act,
               [&ground](Request& request) -> Task<Reply> {
                   co_return co_await Act(ground, request.segments[3], request.segments[4]);
               });
}
