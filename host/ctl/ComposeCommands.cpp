#include "ApiPath.h"
#include "Editor.h"
#include "LocalFile.h"
#include "Progress.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

#include <regex>

using Answers::Value;

namespace {

constexpr const char* YamlType = "application/yaml";
/// Largest compose file that the daemon takes.
constexpr size_t LargestFile = 1024UL * 1024;

Style StyleOfState(const std::string& state) {
    if (state == "running") {
        return Style::Good;
    }
    return state == "partly" || state == "unknown" ? Style::Warning : Style::Faint;
}

std::string RunningText(const Value& containers) {
    size_t running = 0;
    for (const Value& container : containers) {
        running += Answers::Text(container, "state") == "running" ? 1U : 0U;
    }
    return containers.empty() ? "-" : std::to_string(running) + " of " + std::to_string(containers.size());
}

void PrintProjects(const Tool& tool, const Value& answer) {
    Table table({{"FILE"}, {"PROJECT"}, {"STATE"}, {"RUNNING"}});
    for (const Value& project : Answers::Array(answer, "projects")) {
        const std::string state = Answers::Text(project, "state");
        table.Add({{Answers::Text(project, "file")},
                   {Answers::Text(project, "name")},
                   {state, StyleOfState(state)},
                   {RunningText(Answers::Array(project, "containers"))}});
    }
    tool.Print(table.Text(tool.console));
}

void AddLs(CLI::App& group, Tool& tool) {
    CLI::App* const command = AddCommand(
        group, "ls", "List the compose files and the states of their projects", "qxctl compose ls");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"projects"})},
                         [&](const Value& answer) { PrintProjects(tool, answer); });
    });
}

/// The tool may say other things of a file under its name; one that the daemon would not keep under it, by its rule for
/// names, is told apart by its text only.
std::string CheckPath(const std::string& file) {
    const std::string name = file.substr(file.rfind('/') + 1);
    constexpr size_t LongestName = 128;
    static const std::regex NameOfKept("[A-Za-z0-9][A-Za-z0-9._-]*\\.ya?ml");
    return name.size() <= LongestName && std::regex_match(name, NameOfKept)
               ? ApiPath({"compose-files", "check"}, {{"file", name}})
               : ApiPath({"compose-files", "check"});
}

std::string ReadStored(const Tool& tool, const std::string& file) {
    return tool.Send({.target = ApiPath({"compose-files", file})}).body;
}

HttpAnswer Store(const Tool& tool, const std::string& file, const std::string& text) {
    return tool.Send(
        {.method = "PUT", .target = ApiPath({"compose-files", file}), .contentType = YamlType, .body = text});
}

void TellStored(const Tool& tool, const std::string& file, const HttpAnswer& answer) {
    if (!tool.json) {
        tool.Print(Printable(file) + (answer.status == 201 ? " made\n" : " replaced\n"));
    }
}

void AddCat(CLI::App& group, Tool& tool) {
    const auto file = std::make_shared<std::string>();
    CLI::App* const command =
        AddCommand(group, "cat", "Show a compose file of the board", "qxctl compose cat demo.yaml");
    AddArgument(command, "COMPOSE_FILE", *file, "Name of the file");
    OnCommand(command, tool, [&tool, file] {
        const std::string text = ReadStored(tool, *file);
        // Not for a person: byte for byte, also without a line feed at the end.
        tool.console.IsTerminal() ? tool.PrintText(text) : tool.Print(text);
        return ExitCode::Fine;
    });
}

void AddPut(CLI::App& group, Tool& tool) {
    struct Options {
        std::string file;
        std::string name;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(group, "put", "Put a compose file onto the board, or replace it",
                                         "qxctl compose put demo.yaml\n"
                                         "qxctl compose put --as demo.yaml work/compose.yaml\n"
                                         "sed s/80/8080/ demo.yaml | qxctl compose put --as demo.yaml -");
    AddArgument(command, "FILE", options->file, "File here; -: the standard input");
    command->add_option("--as", options->name, "Name on the board; default: that of the file here")
        ->type_name("NAME");
    OnCommand(command, tool, [&tool, options] {
        const std::string name = NameOnBoard(options->file, options->name);
        TellStored(tool, name, Store(tool, name, ReadLocalFile(options->file, LargestFile)));
        return ExitCode::Fine;
    });
}

/// @return nothing when there is no such file
std::optional<std::string> ReadStoredIfThere(const Tool& tool, const std::string& file) {
    try {
        return ReadStored(tool, file);
    } catch (const CtlError& error) {
        if (error.GetExitCode() != ExitCode::NotFound) {
            throw;
        }
        return {};
    }
}

int Edit(const Tool& tool, const std::string& file) {
    const std::optional<std::string> before = ReadStoredIfThere(tool, file);
    EditedText text(before.value_or(""), ".yaml");
    const std::string after = text.Edit();
    if (after == before.value_or("")) {
        Tell("nothing was changed");
        return ExitCode::Fine;
    }
    try {
        if (ReadStoredIfThere(tool, file) != before) {
            throw CtlError(ExitCode::Failed, "'" + file + "' was changed by somebody else meanwhile");
        }
        if (after.size() > LargestFile) {
            throw CtlError(ExitCode::Failed, "the text has more than 1 MiB");
        }
        TellStored(tool, file, Store(tool, file, after));
    } catch (const CtlError& error) {
        throw CtlError(error.GetExitCode(), std::string(error.what()) + "\nYour text is in " + text.Keep());
    }
    return ExitCode::Fine;
}

void AddEdit(CLI::App& group, Tool& tool) {
    const auto file = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(
        group, "edit", "Change or make a compose file of the board in an editor ($VISUAL, $EDITOR, else vi)",
        "qxctl compose edit demo.yaml");
    AddArgument(command, "COMPOSE_FILE", *file, "Name of the file");
    OnCommand(command, tool, [&tool, file] { return Edit(tool, *file); });
}

void AddRemoveFile(CLI::App& group, Tool& tool) {
    const auto file = std::make_shared<std::string>();
    CLI::App* const command =
        AddCommand(group, "rm-file", "Delete a compose file of the board; its containers stay",
                   "qxctl compose rm-file demo.yaml");
    AddArgument(command, "COMPOSE_FILE", *file, "Name of the file");
    OnCommand(command, tool, [&tool, file] {
        return tool.Do({.method = "DELETE", .target = ApiPath({"compose-files", *file})}, *file + " deleted");
    });
}

void AddCheck(CLI::App& group, Tool& tool) {
    struct Options {
        std::string file;
        bool isStored = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(
        group, "check", "Ask the board's compose tool whether a file is a project, without keeping it",
        "qxctl compose check demo.yaml\n"
        "qxctl compose check --stored demo.yaml   # the file on the board\n"
        "qxctl compose check - < demo.yaml");
    AddArgument(command, "FILE", options->file, "File here; -: the standard input");
    command->add_flag("--stored", options->isStored, "FILE is the name of a file on the board");
    OnCommand(command, tool, [&tool, options] {
        const std::string text =
            options->isStored ? ReadStored(tool, options->file) : ReadLocalFile(options->file, LargestFile);
        Progress progress("Checking " + options->file);
        return tool.Show(
            {.method = "POST",
             .target = CheckPath(options->file),
             .contentType = YamlType,
             .body = text,
             .progress = &progress},
            [&](const Value& answer) {
                tool.PrintText(Answers::Text(answer, "output"));
                tool.Print(Printable(options->file) +
                           (Answers::Flag(answer, "valid") ? " is a project\n" : " is no project\n"));
            },
            [](const Value& answer) {
                return Answers::Flag(answer, "valid") ? ExitCode::Fine : ExitCode::Failed;
            });
    });
}

constexpr long long NoSuchFile = 4;

std::string TextOfCode(long long code) {
    switch (code) {
        case NoSuchFile:
            return "there is no such file";
        case 5:
            return "the compose tool could not be started";
        case 6:
            return "the compose tool failed";
        case 7:
            return "no container changed";
        default:
            return "the outcome was unexpected (code " + std::to_string(code) + ")";
    }
}

void PrintOutcome(const Tool& tool, const std::string& file, const Value& answer) {
    const Value& result = Answers::Member(answer, "result");
    const bool isOk = Answers::Flag(answer, "ok");
    std::string message = Answers::TextOrNone(result, "Message");
    if (message.empty()) {
        message = isOk ? "done" : TextOfCode(Answers::Number(answer, "code"));
    }
    if (isOk) {
        tool.PrintText(file + ": " + message);
    } else {
        Tell(file + ": " + message);
    }
    if (!result.is_object() || !result.contains("Containers") || result["Containers"].empty()) {
        return;
    }
    Table table({{"CONTAINER"}, {"STATE"}});
    for (const Value& container : Answers::Array(result, "Containers")) {
        const std::string state = Answers::TextOrNone(container, "State");
        table.Add({{Answers::Text(container, "Name")}, {state, StyleOfState(state)}});
    }
    tool.Print(table.Text(tool.console));
}

struct Operation {
    const char* name;
    const char* request;
    const char* description;
    const char* work;
};

void AddOperation(CLI::App& group, Tool& tool, const Operation& operation) {
    const auto file = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(group, operation.name, operation.description,
                                         std::string("qxctl compose ") + operation.name + " demo.yaml");
    AddArgument(command, "COMPOSE_FILE", *file, "Name of the project's file");
    OnCommand(command, tool, [&tool, file, operation] {
        Progress progress(std::string(operation.work) + " " + *file);
        return tool.Show(
            {.method = "POST",
             .target = ApiPath({"projects", *file, operation.request}),
             .progress = &progress},
            [&](const Value& answer) { PrintOutcome(tool, *file, answer); },
            [](const Value& answer) {
                return Answers::Flag(answer, "ok")                     ? ExitCode::Fine
                       : Answers::Number(answer, "code") == NoSuchFile ? ExitCode::NotFound
                                                                       : ExitCode::Failed;
            });
    });
}

}  // namespace

void AddComposeCommands(CLI::App& app, Tool& tool) {
    CLI::App* const group = AddGroup(app, "compose", "Compose files of the board and their projects");
    AddLs(*group, tool);
    AddCat(*group, tool);
    AddPut(*group, tool);
    AddEdit(*group, tool);
    AddRemoveFile(*group, tool);
    AddCheck(*group, tool);
    AddOperation(*group, tool, {"create", "create", "Make the containers of a project", "Creating"});
    AddOperation(*group, tool, {"start", "start", "Start the containers of a project", "Starting"});
    AddOperation(*group, tool, {"stop", "stop", "Stop the containers of a project", "Stopping"});
    AddOperation(*group, tool, {"rm", "remove", "Remove the containers of a project", "Removing"});
}
