#include "QxCContainer.h"
#include "api/Interface.h"

using QxNHttp::Problem;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNJson::json;

namespace {

/// Podman says what went wrong in "message", and in "cause" without the context.
std::string ReasonOf(const PodmanResponse& response) {
    const std::string message = TextMember(json::parse(response.body), "message");
    return message.empty() ? "Podman answered " + std::to_string(response.httpCode) + "."
                           : "Podman says: " + message;
}

Status StatusFor(const PodmanResponse& response) {
    switch (response.httpCode) {
        case 400:
            return Status::bad_request;
        case 404:
            return Status::not_found;
        case 409:
            return Status::conflict;
        default:
            break;
    }
    // Podman has no status of its own for what the container's state forbids.
    const std::string cause = TextMember(json::parse(response.body), "cause");
    return cause.find("state") != std::string::npos || cause.find("in use") != std::string::npos ||
                   cause.find("running") != std::string::npos
               ? Status::conflict
               : Status::bad_gateway;
}

Problem NoAnswer(const ServiceKeeper& keeper) {
    if (keeper.IsBusy()) {
        return {
            Status::service_unavailable,
            "Podman does not answer: the service is just starting or stopping. Try again when that is done."};
    }
    return {Status::service_unavailable,
            "Podman does not answer. " + (keeper.TheProblem().empty()
                                              ? std::string("Look at the check and start the service.")
                                              : keeper.TheProblem())};
}

}  // namespace

void RequirePodman(const ServiceKeeper& keeper) {
    if (keeper.IsLost()) {
        throw NoAnswer(keeper);
    }
}

void RequireUserStorage(ServiceKeeper& keeper) {
    std::string reason;
    if (!keeper.Service().HasValidUserStorage(&reason)) {
        throw Problem(Status::conflict, reason + "; mount it first. Nothing was kept.");
    }
}

Task<PodmanResponse> AskPodman(Ground& ground, const PodmanAsk& ask) {
    RequirePodman(ground.keeper);
    QxNContainer::QxCContainer& service = ground.keeper.Service();
    const std::chrono::seconds deadline = ask.deadline;
    auto request = [&service, own = ask] {
        return service.ExecutePodmanRequest(own.endpoint, own.method, own.headers, own.uploadPath,
                                            own.writeThrough);
    };
    const auto response = co_await QxNHttp::InBackgroundWithin(ground.podman, deadline, std::move(request));
    if (!response) {
        ground.keeper.AskSoon();
        throw Problem(Status::gateway_timeout, "Podman has not answered within " +
                                                   std::to_string(deadline.count()) +
                                                   " s; it may still do what was asked.");
    }
    if (response->httpCode == 0) {
        ground.keeper.AskSoon();
        throw NoAnswer(ground.keeper);
    }
    if (response->httpCode >= 400) {
        throw Problem(StatusFor(*response), ReasonOf(*response));
    }
    co_return *response;
}

Task<json> AskPodmanForJson(Ground& ground, const PodmanAsk& ask) {
    const PodmanResponse response = co_await AskPodman(ground, ask);
    json answer = json::parse(response.body);
    if (answer.is_invalid()) {
        throw Problem(Status::bad_gateway, "Podman's answer is no JSON.");
    }
    co_return answer;
}

std::string TextMember(const json& object, const char* name) {
    return object.is_object() && object.contains(name) && object[name].is_string()
               ? object[name].get<std::string>()
               : std::string();
}

std::int64_t NumberMember(const json& object, const char* name) {
    return object.is_object() && object.contains(name) && object[name].is_number()
               ? object[name].get<std::int64_t>()
               : 0;
}

json Member(const json& object, const char* name) {
    return object.is_object() && object.contains(name) ? json(object[name]) : json(nullptr);
}
