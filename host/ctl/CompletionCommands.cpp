#include "ApiPath.h"
#include "Completion.h"
#include "NameList.h"
#include "Tool.h"

namespace {

std::string ScriptFor(const std::string& shell, const CommandNode& tool) {
    if (shell == "bash") {
        return BashCompletion(tool);
    }
    return shell == "zsh" ? ZshCompletion(tool) : FishCompletion(tool);
}

void AddCompletion(CLI::App& app, Tool& tool) {
    const auto shell = std::make_shared<std::string>();
    CLI::App* const command =
        AddCommand(app, "completion", "Print a script that completes command lines of qxctl in a shell",
                   "qxctl completion bash > /etc/bash_completion.d/qxctl\n"
                   "qxctl completion zsh > \"${fpath[1]}/_qxctl\"\n"
                   "qxctl completion fish > ~/.config/fish/completions/qxctl.fish");
    AddArgument(command, "SHELL", *shell, "bash, zsh or fish")
        ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""));
    OnCommand(command, tool, [&app, &tool, shell] {
        tool.Print(ScriptFor(*shell, DescribeCommands(app)));
        return ExitCode::Fine;
    });
}

/// Names for completion. Whatever goes wrong: there are none then, and nothing disturbs who is typing.
void AddNames(CLI::App& app, Tool& tool) {
    const auto kind = std::make_shared<std::string>();
    CLI::App* const command = AddCommand(app, "__complete", "Print names for completion");
    command->group("");
    AddArgument(command, "KIND", *kind, "");
    OnCommand(command, tool, [&tool, kind] {
        try {
            tool.Print(NameList(*kind, tool));
        } catch (const std::exception&) {
            return ExitCode::Failed;
        }
        return ExitCode::Fine;
    });
}

}  // namespace

void AddCompletionCommands(CLI::App& app, Tool& tool) {
    AddCompletion(app, tool);
    AddNames(app, tool);
}
