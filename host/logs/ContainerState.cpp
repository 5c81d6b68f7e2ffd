#include "ContainerState.h"

#include "QxNJson.h"

#include <algorithm>

using QxNJson::json;

namespace {

constexpr size_t LongestName = 255;

bool IsAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// @return the member, or null where there is none
const json::Base& Member(const json::Base& object, const char* name) {
    static const json::Base null;
    const auto member = object.is_object() ? object.find(name) : object.end();
    return member != object.end() ? *member : null;
}

std::string Text(const json::Base& value) { return value.is_string() ? value.get<std::string>() : ""; }

}  // namespace

bool ContainerState::IsName(std::string_view name) {
    return !name.empty() && name.size() <= LongestName && IsAlphanumeric(name[0]) &&
           std::all_of(name.begin(), name.end(),
                       [](char c) { return IsAlphanumeric(c) || c == '_' || c == '.' || c == '-'; });
}

std::string ContainerState::Endpoint(const std::string& container) {
    return "/libpod/containers/" + container + "/json";
}

std::optional<ContainerState> ContainerState::Read(std::string_view text) {
    const json answer = json::parse(text);
    const json::Base& state = Member(answer, "State");
    const json::Base& terminal = Member(Member(answer, "Config"), "Tty");
    const json::Base& exitCode = Member(state, "ExitCode");
    const std::string policy = Text(Member(Member(Member(answer, "HostConfig"), "RestartPolicy"), "Name"));
    ContainerState container;
    container.id = Text(Member(answer, "Id"));
    container.name = Text(Member(answer, "Name"));
    container.hasTerminal = terminal.is_boolean() && terminal.get<bool>();
    container.status = Text(Member(state, "Status"));
    container.finishedAt = Text(Member(state, "FinishedAt"));
    container.exitCode = exitCode.is_number_integer() ? exitCode.get<int>() : 0;
    container.isRestarted = policy == "always" || policy == "unless-stopped" || policy == "on-failure";
    return IsName(container.id) ? std::optional(container) : std::nullopt;
}
