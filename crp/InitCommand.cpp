#include "crp/InitCommand.h"

namespace CRP {

std::string_view firstWordOf(std::string_view initCommand) {
    return initCommand.substr(0, initCommand.find(' '));
}

bool runsThroughShell(std::string_view initCommand) {
    const std::string_view word = firstWordOf(initCommand);
    return word.starts_with('.') || (word.size() > 3 && word.ends_with(".sh"));
}

std::string initCommandLine(const std::string& mountPoint, const std::string& initCommand) {
    const char* prefix = runsThroughShell(initCommand) ? "sh " : "";
    return "cd " + mountPoint + " && " + prefix + initCommand;
}

}  // namespace CRP
