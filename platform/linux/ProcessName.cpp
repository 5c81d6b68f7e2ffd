#include "ProcessName.h"

#include "FileAccess.h"

#include <algorithm>
#include <sstream>

namespace QxNLinuxPlatform {

namespace {

constexpr std::size_t LongestComm = 15;
constexpr unsigned long KernelThreadFlag = 0x00200000;  // PF_KTHREAD

/// Name of the program file, also when the file was replaced since the process started.
std::string programName(const std::string& executable) {
    constexpr std::string_view Deleted = " (deleted)";
    std::string name = baseName(executable);
    if (name.ends_with(Deleted)) {
        name.resize(name.size() - Deleted.size());
    }
    return name;
}

/// Whether a comm of full length is just the beginning of another, longer name.
bool isCut(const ProcessFacts& process) {
    const auto continues = [&process](const std::string& path) {
        const std::string name = baseName(path);
        return name.size() > process.comm.size() && name.starts_with(process.comm);
    };
    return process.comm.size() == LongestComm &&
           (continues(programName(process.executable)) ||
            std::any_of(process.arguments.begin(), process.arguments.end(), continues));
}

}  // namespace

bool hasName(const ProcessFacts& process, const std::string& name) {
    if (name.empty()) {
        return false;
    }
    const bool isFirstArgument = !process.arguments.empty() && baseName(process.arguments.front()) == name;
    return isFirstArgument || programName(process.executable) == name ||
           (process.comm == name && !isCut(process));
}

bool isRunningProgram(std::string_view stat) {
    // The name in brackets may hold blanks and brackets of its own.
    const std::size_t bracket = stat.rfind(')');
    if (bracket == std::string_view::npos) {
        return false;
    }
    std::istringstream fields{std::string(stat.substr(bracket + 1))};
    char state = '\0';
    long ignored = 0;
    unsigned long flags = 0;
    fields >> state >> ignored >> ignored >> ignored >> ignored >> ignored >> flags;
    return fields && state != 'Z' && state != 'X' && (flags & KernelThreadFlag) == 0;
}

}  // namespace QxNLinuxPlatform
