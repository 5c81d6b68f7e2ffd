#include "compose/ComposeStatus.h"

#include "support/Log.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace QxNCompose {

namespace {

using QxNJson::json;

constexpr const char* Removing = "removing";

/// @return a text member; one that is missing, or no text, raises the JSON type's type error
std::string Text(const json::Base& container, const char* key) {
    const auto member = container.find(key);
    return member != container.end() ? member->get<std::string>() : json::Base().get<std::string>();
}

void Report(json& containers, const std::string& name, const std::string& state) {
    json container = json::object();
    container["Name"] = name;
    container["State"] = state;
    containers.push_back(container);
}

void ReportAllAs(json& containers, const json& list, const char* state) {
    for (const auto& container : list) {
        Report(containers, Text(container, "Name"), state);
    }
}

/// Takes the first container of that name out of the list.
/// @return its state; none when there is no container of that name
std::optional<std::string> TakeStateOf(const std::string& name, json& list) {
    for (auto container = list.begin(); container != list.end(); ++container) {
        if (Text(*container, "Name") == name) {
            std::string state = Text(*container, "State");
            list.erase(container);
            return state;
        }
    }
    return std::nullopt;
}

json ResultObject(const char* status, const std::string& message, const json& containers) {
    json result = json::object();
    result["Status"] = status;
    result["Message"] = message;
    result["Containers"] = containers;
    return result;
}

int CompareFilledLists(int cmdType, const std::string& expectedState, json& before, const json& after,
                       json& containers) {
    int result = Transition::Nothing;
    for (const auto& container : after) {
        const std::string name = Text(container, "Name");
        const std::string state = Text(container, "State");
        const std::optional<std::string> stateBefore = TakeStateOf(name, before);
        const bool isNew = !stateBefore.has_value();
        const bool stateChanged = !isNew && state != *stateBefore && state == expectedState;
        QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                          "Quolex Container Service:   container '%s': isNew=%s, stateChanged=%s",
                          name.c_str(), isNew ? "true" : "false", stateChanged ? "true" : "false");
        if (isNew && cmdType == CmdType::Create) {
            Report(containers, name, state);
            result = Transition::Created;
        } else if (stateChanged && cmdType != CmdType::Create) {
            Report(containers, name, state);
            result = Transition::Changed;
        }
    }
    return result;
}

}  // namespace

std::string StatusArrayText(std::string toolOutput) {
    if (toolOutput.ends_with('\n')) {
        toolOutput.pop_back();
    }
    std::replace(toolOutput.begin(), toolOutput.end(), '\n', ',');
    return "[" + toolOutput + "]";
}

std::string ProjectNameOf(const std::string& composeFilePath) {
    return std::filesystem::path(composeFilePath).stem().string();
}

int CompareStates(int cmdType, const std::string& expectedState, json before, const json& after,
                  json& containers) {
    if (before.empty() && after.empty()) {
        return cmdType == CmdType::Create ? Transition::NothingCreated : Transition::Nothing;
    }
    if (after.empty()) {
        ReportAllAs(containers, before, Removing);
        return Transition::Removed;
    }
    if (before.empty()) {
        for (const auto& container : after) {
            Report(containers, Text(container, "Name"), Text(container, "State"));
        }
        return Transition::Changed;
    }
    const int result = CompareFilledLists(cmdType, expectedState, before, after, containers);
    if (cmdType == CmdType::Remove && !before.empty()) {
        ReportAllAs(containers, before, Removing);
        return Transition::Removed;
    }
    return result;
}

json ErrorObject(const std::string& message) { return ResultObject("Error", message, json::array()); }

Outcome OutcomeOf(int cmdType, const std::string& participle, int transition, const json& containers) {
    switch (transition) {
        case Transition::Created:
        case Transition::Changed:
        case Transition::Removed:
            return {cmdType == CmdType::Create ? Result::CreateSuccess : Result::Success,
                    ResultObject("Success", "Containers " + participle + " successfully.", containers)};
        case Transition::Nothing:
            return {Result::NothingChanged,
                    ResultObject("Success",
                                 "Command executed successfully, but no containers were " + participle + ".",
                                 json::array())};
        case Transition::NothingCreated:
            return {Result::Unexpected, ErrorObject("No containers created for unknown reason!")};
        default:
            return {Result::Unexpected, ErrorObject("Unexpected container state transition '" +
                                                    std::to_string(transition) + "'!")};
    }
}

}  // namespace QxNCompose
