#include "CommandTree.h"

#include <algorithm>
#include <map>
#include <set>

namespace {

WordKind KindOf(const std::string& word) {
    static const std::map<std::string, std::string> kinds{
        {"CONTAINER", "containers"}, {"IMAGE", "images"}, {"COMPOSE_FILE", "projects"},
        {"PLUGIN", "plugins"},       {"TOKEN", "tokens"}, {"FILE", "files"},
        {"PATH", "files"},           {"SHELL", "shells"}};
    const auto kind = kinds.find(word);
    return {kind != kinds.end() ? kind->second : ""};
}

CommandOption Describe(const CLI::Option& option) {
    CommandOption result;
    for (const std::string& name : option.get_snames()) {
        result.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        result.names.push_back("--" + name);
    }
    result.description = option.get_description();
    result.takesValue = option.get_items_expected_max() > 0;
    result.value = KindOf(option.get_type_name());
    return result;
}

CommandNode Describe(const CLI::App& app, const std::string& path) {
    CommandNode node;
    node.path = path;
    node.description = app.get_description();
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional()) {
            node.argument = KindOf(option->get_name(true));
        } else {
            node.options.push_back(Describe(*option));
        }
    }
    for (const CLI::App* const child : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (!child->get_group().empty()) {
            node.children.push_back(Describe(*child, (path.empty() ? "" : path + " ") + child->get_name()));
        }
    }
    return node;
}

void Collect(const CommandNode& node, std::vector<const CommandNode*>& nodes) {
    nodes.push_back(&node);
    for (const CommandNode& child : node.children) {
        Collect(child, nodes);
    }
}

}  // namespace

CommandNode DescribeCommands(const CLI::App& app) { return Describe(app, ""); }

std::vector<const CommandNode*> AllNodes(const CommandNode& node) {
    std::vector<const CommandNode*> nodes;
    Collect(node, nodes);
    return nodes;
}

std::vector<CommandOption> OptionsAt(const CommandNode& tool, const CommandNode& node) {
    std::vector<CommandOption> options = node.options;
    if (&node == &tool) {
        return options;
    }
    for (const CommandOption& global : tool.options) {
        const auto isSame = [&](const CommandOption& own) { return own.names == global.names; };
        const bool isOfToolOnly = global.names.back() == "--version";
        if (!isOfToolOnly && std::none_of(options.begin(), options.end(), isSame)) {
            options.push_back(global);
        }
    }
    return options;
}

std::vector<CommandOption> OptionsWithValue(const CommandNode& tool) {
    std::vector<CommandOption> options;
    std::set<std::string> seen;
    for (const CommandNode* const node : AllNodes(tool)) {
        for (const CommandOption& option : node->options) {
            if (option.takesValue && seen.insert(option.names.back()).second) {
                options.push_back(option);
            }
        }
    }
    return options;
}

std::string ShellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

std::string ValueFunction(const CommandNode& tool) {
    std::string text =
        "# What the value of an option is; fails for an option without one.\n_qxctl_value() {\n    case $1 "
        "in\n";
    for (const CommandOption& option : OptionsWithValue(tool)) {
        for (const std::string& name : option.names) {
            text += "        " + name + ") value_kind=" + ShellQuoted(option.value.name) + " ;;\n";
        }
    }
    return text + "        *) return 1 ;;\n    esac\n}\n";
}
