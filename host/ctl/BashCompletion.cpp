#include "Completion.h"

namespace {

constexpr const char* Driver = R"script(
_qxctl() {
    local line=${COMP_LINE:0:COMP_POINT} place='' previous='' current='' word candidate prefix=''
    local commands options candidates kind value_kind=''
    local -a words connection=()
    read -ra words <<<"$line"
    if [[ $line != *[[:space:]] ]]; then
        current=${words[-1]}
        unset 'words[-1]'
    fi
    _qxctl_node ''
    for word in "${words[@]:1}"; do
        if [[ -n $previous ]]; then
            case $previous in
                --socket | --address | --token-file | --ca) connection+=("$previous" "$word") ;;
            esac
            previous=''
        elif [[ $word == -* ]]; then
            _qxctl_value "$word" && previous=$word
        elif [[ " $commands " == *" $word "* ]]; then
            place=${place:+$place }$word
            _qxctl_node "$place"
        fi
    done
    COMPREPLY=()
    if [[ -n $previous ]]; then
        kind=$value_kind candidates=''
    elif [[ $current == -* ]]; then
        kind='' candidates=$options
    else
        candidates=$commands
    fi
    if [[ $kind == files ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    if [[ -n $kind ]]; then
        candidates=$("${words[0]}" "${connection[@]}" __complete "$kind" 2>/dev/null)
    fi
    # For bash a colon begins a new word, so only what comes after it is to be completed.
    if [[ $COMP_WORDBREAKS == *:* && $current == *:* ]]; then
        prefix=${current%"${current##*:}"}
    fi
    while read -r candidate; do
        if [[ -n $candidate && $candidate == "$current"* ]]; then
            COMPREPLY+=("${candidate#"$prefix"}")
        fi
    done <<<"${candidates// /$'\n'}"
}

complete -F _qxctl qxctl
)script";

std::string JoinedOptions(const std::vector<CommandOption>& options) {
    std::string words;
    for (const CommandOption& option : options) {
        for (const std::string& name : option.names) {
            words += (words.empty() ? "" : " ") + name;
        }
    }
    return words;
}

std::string JoinedChildren(const CommandNode& node) {
    std::string words;
    for (const CommandNode& child : node.children) {
        words += (words.empty() ? "" : " ") + child.Name();
    }
    return words;
}

std::string NodeFunction(const CommandNode& tool) {
    std::string text = "_qxctl_node() {\n    case $1 in\n";
    for (const CommandNode* const node : AllNodes(tool)) {
        text += "        " + ShellQuoted(node->path) + ") commands=" + ShellQuoted(JoinedChildren(*node)) +
                " kind=" + ShellQuoted(node->argument.name) +
                " options=" + ShellQuoted(JoinedOptions(OptionsAt(tool, *node))) + " ;;\n";
    }
    return text + "    esac\n}\n";
}

}  // namespace

std::string BashCompletion(const CommandNode& tool) {
    return "# Completion of qxctl for bash, made by 'qxctl completion bash'.\n\n"
           "# What may stand at a place of the command line.\n" +
           NodeFunction(tool) + "\n" + ValueFunction(tool) + Driver;
}
