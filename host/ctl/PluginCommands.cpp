#include "ApiPath.h"
#include "Format.h"
#include "LocalFile.h"
#include "Progress.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

using Answers::Value;

namespace {

/// The only type that is loaded.
constexpr long long Squashfs = 1;

/// @return what holds of it since the daemon's start
Table::Cell StateNow(const Value& plugin) {
    if (Answers::Flag(plugin, "isLoaded")) {
        return {"loaded", Style::Good};
    }
    if (Answers::Flag(plugin, "isDeactivated")) {
        return {"deactivated", Style::Faint};
    }
    if (!Answers::Flag(plugin, "osCompatible")) {
        return {"for OS release " + Answers::Text(plugin, "compatibleOs"), Style::Warning};
    }
    const long long type = Answers::Number(plugin, "pluginType");
    return {type == Squashfs ? "not loaded" : "of unknown type " + std::to_string(type), Style::Warning};
}

Table::Cell StateOf(const Value& plugin) {
    Table::Cell cell = StateNow(plugin);
    const bool isOffNext = Answers::Flag(plugin, "deactivatedNext");
    if (isOffNext != Answers::Flag(plugin, "isDeactivated")) {
        cell.text += isOffNext ? ", off from the next start" : ", on from the next start";
    }
    return cell;
}

void PrintPlugins(const Tool& tool, const Value& answer) {
    Table table({{"FILE"},
                 {"NAME"},
                 {"VERSION"},
                 {"PRIORITY", Table::Side::Right},
                 {"DIRECTORY"},
                 {"SIZE", Table::Side::Right},
                 {"STATE"}});
    for (const Value& plugin : Answers::Array(answer, "plugins")) {
        table.Add({{Answers::Text(plugin, "fileName")},
                   {Answers::Text(plugin, "name")},
                   {Answers::Text(plugin, "version")},
                   {std::to_string(Answers::Number(plugin, "initPriority"))},
                   {Answers::Text(plugin, "directory")},
                   {SizeText(static_cast<std::uint64_t>(std::max(0LL, Answers::Number(plugin, "size"))))},
                   StateOf(plugin)});
    }
    tool.Print(table.Text(tool.console));
}

void AddAdd(CLI::App& group, Tool& tool) {
    struct Options {
        std::string file;
        std::string name;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(
        group, "add",
        "Put a plugin file onto the board, or replace it; it is loaded at the next start of the daemon",
        "qxctl plugin add network.crp\n"
        "qxctl plugin add --as network.crp build/network-1.2.crp");
    AddArgument(command, "FILE", options->file, "Plugin file here");
    command->add_option("--as", options->name, "Name on the board; default: that of the file here")
        ->type_name("NAME");
    OnCommand(command, tool, [&tool, options] {
        const std::string name = NameOnBoard(options->file, options->name);
        Progress progress("Sending " + options->file, "Checking " + name);
        const HttpAnswer answer = tool.Send({.method = "PUT",
                                             .target = ApiPath({"plugins", name}),
                                             .contentType = "application/octet-stream",
                                             .file = options->file,
                                             .progress = &progress});
        if (!tool.json) {
            tool.Print(Printable(name) + (answer.status == 201 ? " added" : " replaced") +
                       "; it is loaded at the next start of the daemon\n");
        }
        return ExitCode::Fine;
    });
}

void AddRemove(CLI::App& group, Tool& tool) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(
        group, "rm", "Delete a plugin file; when it is loaded, it stays so until the board restarts",
        "qxctl plugin rm network.crp");
    AddArgument(command, "PLUGIN", *name, "Name of the file");
    OnCommand(command, tool, [&tool, name] {
        return tool.Do({.method = "DELETE", .target = ApiPath({"plugins", *name})}, *name + " deleted");
    });
}

void AddSwitch(CLI::App& group, Tool& tool, const char* action, const char* description) {
    struct Options {
        std::string name;
        bool isOfSystem = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command =
        AddCommand(group, action, description, std::string("qxctl plugin ") + action + " network.crp");
    AddArgument(command, "PLUGIN", options->name, "Name of the file");
    command->add_flag("--system", options->isOfSystem,
                      "The system's, where the user has one of that name too");
    OnCommand(command, tool, [&tool, options, action] {
        const char* const directory = options->isOfSystem ? "system" : "";
        return tool.Do({.method = "POST",
                        .target = ApiPath({"plugins", options->name, action}, {{"directory", directory}})},
                       options->name + " " + action + "d; in effect after the next start of the daemon");
    });
}

void AddRescan(CLI::App& group, Tool& tool) {
    CLI::App* const command =
        AddCommand(group, "rescan", "Look again at the plugin directories; nothing is loaded or unloaded",
                   "qxctl plugin rescan");
    OnCommand(command, tool, [&tool] {
        Progress progress("Looking at the plugins");
        return tool.Show({.method = "POST", .target = ApiPath({"plugins", "rescan"}), .progress = &progress},
                         [&](const Value& answer) { PrintPlugins(tool, answer); });
    });
}

}  // namespace

void AddPluginCommands(CLI::App& app, Tool& tool) {
    CLI::App* const list = AddCommand(app, "plugins", "List the runtime plugins", "qxctl plugins");
    OnCommand(list, tool, [&tool] {
        return tool.Show({.target = ApiPath({"plugins"})},
                         [&](const Value& answer) { PrintPlugins(tool, answer); });
    });
    CLI::App* const group = AddGroup(app, "plugin", "Add, remove or switch runtime plugins");
    AddAdd(*group, tool);
    AddRemove(*group, tool);
    AddSwitch(*group, tool, "activate", "Let a plugin be loaded at the next start of the daemon");
    AddSwitch(*group, tool, "deactivate",
              "Let a plugin not be loaded any more at the next start of the daemon");
    AddRescan(*group, tool);
}
