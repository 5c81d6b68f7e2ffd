#include "Completion.h"

namespace {

constexpr const char* Driver = R"script(
# The command that has been typed so far.
function __qxctl_place
    set -l place ''
    set -l isValue 0
    for word in (commandline -opc)[2..-1]
        if test $isValue = 1
            set isValue 0
        else if contains -- $word $__qxctl_with_value
            set isValue 1
        else
            set -l longer (string trim -- "$place $word")
            contains -- $longer $__qxctl_places; and set place $longer
        end
    end
    echo $place
end

function __qxctl_at
    test (__qxctl_place) = "$argv[1]"
end

# Names from the daemon that the command line means.
function __qxctl_names
    set -l words (commandline -opc)
    set -l connection
    set -l option
    for word in $words[2..-1]
        if test -n "$option"
            set -a connection $option $word
            set option
        else if contains -- $word --socket --address --token-file --ca
            set option $word
        end
    end
    $words[1] $connection __complete $argv[1] 2>/dev/null
end

complete -c qxctl -f
)script";

std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' || c == '\\' ? "\\" : "";
        quoted += c;
    }
    return quoted + "'";
}

/// @return the condition under which a line of the script counts
std::string At(const CommandNode& node) { return " -n " + Quoted("__qxctl_at \"" + node.path + "\""); }

std::string OptionLine(const CommandOption& option, const std::string& condition) {
    std::string line = "complete -c qxctl" + condition;
    for (const std::string& name : option.names) {
        line += name.rfind("--", 0) == 0 ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (option.takesValue) {
        line += option.value.name == "files" ? " -r -F" : " -x";
    }
    return line + " -d " + Quoted(option.description) + "\n";
}

std::string ArgumentLine(const CommandNode& node) {
    const std::string& kind = node.argument.name;
    if (kind.empty()) {
        return {};
    }
    return "complete -c qxctl" + At(node) +
           (kind == "files" ? " -F" : " -a " + Quoted("(__qxctl_names " + kind + ")")) + "\n";
}

std::string NodeLines(const CommandNode& tool, const CommandNode& node) {
    std::string text;
    for (const CommandNode& child : node.children) {
        text += "complete -c qxctl" + At(node) + " -a " + child.Name() + " -d " + Quoted(child.description) +
                "\n";
    }
    for (const CommandOption& option : node.options) {
        const bool isEverywhere = &node == &tool && option.names.back() != "--version";
        if (&node == &tool || option.names.back() != "--help") {
            text += OptionLine(option, isEverywhere ? "" : At(node));
        }
    }
    return text + ArgumentLine(node);
}

}  // namespace

std::string FishCompletion(const CommandNode& tool) {
    std::string places = "set -g __qxctl_places";
    std::string withValue = "set -g __qxctl_with_value";
    std::string lines;
    for (const CommandNode* const node : AllNodes(tool)) {
        places += node->path.empty() ? "" : " " + Quoted(node->path);
        lines += NodeLines(tool, *node);
    }
    for (const CommandOption& option : OptionsWithValue(tool)) {
        for (const std::string& name : option.names) {
            withValue += " " + name;
        }
    }
    return "# Completion of qxctl for fish, made by 'qxctl completion fish'.\n\n" + places + "\n" +
           withValue + "\n" + Driver + lines;
}
