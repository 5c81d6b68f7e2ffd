#include "api/Interface.h"

#include <limits>

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

Task<Reply> Act(Ground& ground, const std::string& action) {
    if (action == "enable" || action == "disable") {
        co_await ground.keeper.Enable(action == "enable");
    } else if (action == "start") {
        co_await ground.keeper.Start();
    } else if (action == "stop") {
        co_await ground.keeper.Stop();
    } else {
        throw Problem(Status::not_found, "The service can be enabled, disabled, started and stopped.");
    }
    co_return JsonReply(ground.keeper.Describe());
}

std::optional<unsigned> Number(const json& object, const char* name) {
    if (!object.contains(name)) {
        return std::nullopt;
    }
    if (!object[name].is_number_unsigned() ||
        object[name].get<std::uint64_t>() > std::numeric_limits<unsigned>::max()) {
        throw Problem(Status::bad_request,
                      std::string("'") + name + "' must be a number that is not negative.");
    }
    return object[name].get<unsigned>();
}

Task<Reply> Change(Ground& ground, Request& request) {
    const json wanted = co_await ReadObject(request);
    for (const auto& [name, value] : wanted.items()) {
        if (name != "tcpPort" && name != "cores") {
            throw Problem(Status::bad_request,
                          "There is no setting '" + name + "'; there are tcpPort and cores.");
        }
    }
    co_await ground.keeper.ChangeSettings(Number(wanted, "tcpPort"), Number(wanted, "cores"));
    co_return JsonReply(ground.keeper.Describe());
}

}  // namespace

void AddServiceRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/service", Right::Look,
               [&ground](Request&) -> Task<Reply> { co_return JsonReply(ground.keeper.Describe()); });
    router.Add(Verb::patch, "/service/settings", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await Change(ground, request); });
    router.Add(Verb::post, "/service/{action}", Right::Act, [&ground](Request& request) -> Task<Reply> {
        co_return co_await Act(ground, request.segments[3]);
    });
}
