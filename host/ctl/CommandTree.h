#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

/// What a word of the command line may be, for completion.
struct WordKind {
    /// "": nothing is known of it; "files": a file here; otherwise names of `qxctl __complete KIND`
    std::string name;
};

/// An option of a command.
struct CommandOption {
    std::vector<std::string> names;  ///< with their dashes
    std::string description;
    bool takesValue = false;
    WordKind value;
};

/// A command or a group of commands.
struct CommandNode {
    std::string path;  ///< the words after `qxctl`; empty for the tool itself
    std::string description;
    std::vector<CommandOption> options;
    WordKind argument;
    std::vector<CommandNode> children;

    std::string Name() const { return path.substr(path.rfind(' ') + 1); }
};

/// @return the tool with all its commands, apart from hidden ones
CommandNode DescribeCommands(const CLI::App& app);

/// @return the options that may be given at a command: its own and those of the tool
std::vector<CommandOption> OptionsAt(const CommandNode& tool, const CommandNode& node);

/// @return every option of the tool that takes a value, once
std::vector<CommandOption> OptionsWithValue(const CommandNode& tool);

/// @return a text between apostrophes, as bash and zsh read it
std::string ShellQuoted(const std::string& text);

/// @return the function `_qxctl_value` of bash and zsh: what the value of an option is
std::string ValueFunction(const CommandNode& tool);

/// @return the node and all below it, from the top
std::vector<const CommandNode*> AllNodes(const CommandNode& node);
