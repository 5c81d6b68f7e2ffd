#include "ApiPath.h"
#include "Progress.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

using Answers::Value;

namespace {

constexpr size_t ShortId = 12;

Style StyleOfState(const std::string& state) {
    if (state == "running") {
        return Style::Good;
    }
    return state == "exited" || state == "stopped" || state == "created" ? Style::Faint : Style::Warning;
}

std::string JoinedTexts(const Value& list) {
    std::string joined;
    for (const Value& item : list) {
        if (!item.is_string()) {
            Answers::Malformed("a list of texts holds something else");
        }
        joined += (joined.empty() ? "" : ", ") + item.get<std::string>();
    }
    return joined;
}

void PrintContainers(const Tool& tool, const Value& answer) {
    Table table({{"NAME"}, {"ID"}, {"STATE"}, {"STATUS"}, {"IMAGE"}, {"PROJECT"}, {"PORTS"}});
    for (const Value& container : Answers::Array(answer, "containers")) {
        const std::string state = Answers::Text(container, "state");
        table.Add({{Answers::Text(container, "name")},
                   {Answers::Text(container, "id").substr(0, ShortId)},
                   {state, StyleOfState(state)},
                   {Answers::Text(container, "status")},
                   {Answers::Text(container, "image")},
                   {Answers::Text(container, "project")},
                   {JoinedTexts(Answers::Array(container, "ports"))}});
    }
    tool.Print(table.Text(tool.console));
}

void AddPs(CLI::App& app, Tool& tool) {
    CLI::App* const command = AddCommand(app, "ps", "List all containers",
                                         "qxctl ps\n"
                                         "qxctl ps --json | jq -r '.containers[].name'");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"containers"})},
                         [&](const Value& answer) { PrintContainers(tool, answer); });
    });
}

void AddInspect(CLI::App& app, Tool& tool) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(app, "inspect", "Tell all that Podman knows of a container, as JSON",
                                         "qxctl inspect clock\n"
                                         "qxctl inspect clock --json | jq .State");
    AddArgument(command, "CONTAINER", *name, "Name or id");
    OnCommand(command, tool, [&tool, name] {
        return tool.Show({.target = ApiPath({"containers", *name})},
                         [&](const Value& answer) { tool.PrintText(answer.dump(4)); });
    });
}

struct ContainerAction {
    const char* name;
    const char* description;
    const char* work;
    const char* done;
};

void AddAction(CLI::App& group, Tool& tool, const ContainerAction& action) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(group, action.name, action.description,
                                         std::string("qxctl container ") + action.name + " clock");
    AddArgument(command, "CONTAINER", *name, "Name or id");
    OnCommand(command, tool, [&tool, name, action] {
        Progress progress(std::string(action.work) + " " + *name);
        return tool.Do(
            {.method = "POST", .target = ApiPath({"containers", *name, action.name}), .progress = &progress},
            *name + " " + action.done);
    });
}

void AddRemove(CLI::App& group, Tool& tool) {
    struct Options {
        std::string name;
        bool isForced = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(group, "rm", "Remove a container",
                                         "qxctl container rm clock\n"
                                         "qxctl container rm --force clock");
    AddArgument(command, "CONTAINER", options->name, "Name or id");
    command->add_flag("--force", options->isForced, "Also when it runs");
    OnCommand(command, tool, [&tool, options] {
        Progress progress("Removing " + options->name);
        return tool.Do(
            {.method = "DELETE",
             .target = ApiPath({"containers", options->name}, {{"force", options->isForced ? "true" : ""}}),
             .progress = &progress},
            options->name + " removed");
    });
}

}  // namespace

void AddContainerCommands(CLI::App& app, Tool& tool) {
    AddPs(app, tool);
    AddInspect(app, tool);
    CLI::App* const group = AddGroup(app, "container", "Start, stop, restart or remove a container");
    AddAction(*group, tool, {"start", "Start a container", "Starting", "started"});
    AddAction(*group, tool, {"stop", "Stop a container", "Stopping", "stopped"});
    AddAction(*group, tool, {"restart", "Stop a container and start it again", "Restarting", "restarted"});
    AddRemove(*group, tool);
}
