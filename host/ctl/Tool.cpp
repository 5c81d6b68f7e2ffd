#include "Tool.h"

#include "Text.h"

HttpAnswer Tool::Send(const HttpRequest& request) const {
    Client client(MakeEndpoint());
    return client.Send(request);
}

int Tool::Show(const HttpRequest& request, const std::function<void(const Answers::Value&)>& present,
               const std::function<int(const Answers::Value&)>& judge) const {
    const HttpAnswer answer = Send(request);
    const QxNJson::json value = answer.Json();
    const int exitCode = judge ? judge(value) : ExitCode::Fine;
    if (json) {
        PrintText(answer.body);
    } else {
        present(value);
    }
    return exitCode;
}

int Tool::Do(const HttpRequest& request, const std::string& text) const {
    const HttpAnswer answer = Send(request);
    if (json) {
        PrintText(answer.body);
    } else {
        Print(Printable(text) + "\n");
    }
    return ExitCode::Fine;
}

void Tool::PrintText(std::string_view text) const {
    if (text.empty()) {
        return;
    }
    if (console.IsTerminal()) {
        Print(Printable(text, Lines::AreKept));
    } else {
        Print(text);
    }
    if (text.back() != '\n') {
        Print("\n");
    }
}

CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& examples) {
    CLI::App* const command = parent.add_subcommand(name, description);
    command->fallthrough();
    std::string footer;
    if (!examples.empty()) {
        footer = "Examples:\n";
        size_t begin = 0;
        while (begin < examples.size()) {
            const size_t end = std::min(examples.find('\n', begin), examples.size());
            footer += "  " + examples.substr(begin, end - begin) + "\n";
            begin = end + 1;
        }
        footer += "\n";
    }
    command->footer(footer + "'qxctl --help' tells of options for every command and of exit codes.");
    return command;
}

CLI::App* AddGroup(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App* const group = AddCommand(parent, name, description);
    group->require_subcommand(1);
    return group;
}

CLI::Option* AddArgument(CLI::App* command, const std::string& name, std::string& value,
                         const std::string& description) {
    return command->add_option(name, value, description)->required()->type_name("");
}

void OnCommand(CLI::App* command, Tool& tool, std::function<int()> action) {
    command->callback([&tool, action = std::move(action)] { tool.command = action; });
}
