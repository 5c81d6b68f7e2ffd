#include "Completion.h"

namespace {

constexpr const char* Driver = R"script(
_qxctl() {
    emulate -L zsh
    local word place='' previous='' current=${words[CURRENT]} kind='' value_kind=''
    local -a commands options names connection
    _qxctl_node ''
    for word in ${(Q)words[2,CURRENT-1]}; do
        if [[ -n $previous ]]; then
            case $previous in
                --socket|--address|--token-file|--ca) connection+=($previous $word) ;;
            esac
            previous=''
        elif [[ $word == -* ]]; then
            _qxctl_value $word && previous=$word
        else
            names=(${commands%%:*})
            if (( ${names[(Ie)$word]} )); then
                place=${place:+$place }$word
                _qxctl_node $place
            fi
        fi
    done
    if [[ -n $previous ]]; then
        kind=$value_kind
    elif [[ $current == -* ]]; then
        _describe -o option options
        return
    elif (( $#commands )); then
        _describe command commands
        return
    fi
    if [[ $kind == files ]]; then
        _files
    elif [[ -n $kind ]]; then
        names=(${(f)"$(${~${(Q)words[1]}} $connection __complete $kind 2>/dev/null)"})
        compadd -a names
    fi
}

if [[ ${funcstack[1]-} == _qxctl ]]; then
    _qxctl "$@"
else
    compdef _qxctl qxctl
fi
)script";

std::string Described(const std::string& word, const std::string& description) {
    return " " + ShellQuoted(word + ":" + description);
}

std::string NodeFunction(const CommandNode& tool) {
    std::string text = "_qxctl_node() {\n    case $1 in\n";
    for (const CommandNode* const node : AllNodes(tool)) {
        text += "        " + ShellQuoted(node->path) +
                ")\n            kind=" + ShellQuoted(node->argument.name) + "\n            commands=(";
        for (const CommandNode& child : node->children) {
            text += Described(child.Name(), child.description);
        }
        text += ")\n            options=(";
        for (const CommandOption& option : OptionsAt(tool, *node)) {
            for (const std::string& name : option.names) {
                text += Described(name, option.description);
            }
        }
        text += ") ;;\n";
    }
    return text + "    esac\n}\n";
}

}  // namespace

std::string ZshCompletion(const CommandNode& tool) {
    return "#compdef qxctl\n# Completion of qxctl for zsh, made by 'qxctl completion zsh'.\n\n"
           "# What may stand at a place of the command line.\n" +
           NodeFunction(tool) + "\n" + ValueFunction(tool) + Driver;
}
