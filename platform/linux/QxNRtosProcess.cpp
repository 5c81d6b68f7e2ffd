#include "FileAccess.h"
#include "NumberText.h"
#include "ProcessName.h"
#include "QxNRtosAbstraction.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <system_error>

namespace QxNRtosAbstraction {

namespace {

using namespace QxNLinuxPlatform;

std::string readLink(const std::string& path) {
    std::array<char, 4096> target{};
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

std::vector<std::string> splitArguments(const std::string& commandLine) {
    std::vector<std::string> arguments;
    std::size_t begin = 0;
    while (begin < commandLine.size()) {
        const std::size_t end = std::min(commandLine.find('\0', begin), commandLine.size());
        arguments.push_back(commandLine.substr(begin, end - begin));
        begin = end + 1;
    }
    return arguments;
}

/// A process that ends meanwhile leaves parts empty, and then has no name.
bool runsProgram(const std::string& directory, const std::string& name) {
    if (!isRunningProgram(readFile(directory + "/stat").text)) {
        return false;
    }
    constexpr std::size_t EnoughForPaths = 16UL * 1024;
    ProcessFacts process;
    process.arguments = splitArguments(readFileStart(directory + "/cmdline", EnoughForPaths).text);
    process.executable = readLink(directory + "/exe");
    process.comm = readFile(directory + "/comm").text;
    if (process.comm.ends_with('\n')) {
        process.comm.pop_back();
    }
    return hasName(process, name);
}

}  // namespace

unsigned int getProcessID(const char* name) {
    if (name == nullptr) {
        return NoProcess;
    }
    unsigned int lowest = NoProcess;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc", error);
    for (const std::filesystem::directory_iterator end; !error && entry != end; entry.increment(error)) {
        const std::optional<unsigned int> pid = parseNumber(entry->path().filename().native());
        const bool isCandidate = pid && (lowest == NoProcess || *pid < lowest);
        if (isCandidate && runsProgram(entry->path().native(), name)) {
            lowest = *pid;
        }
    }
    return lowest;
}

bool signalProcess(unsigned int pid, int signal, int value) {
    constexpr auto HighestId = static_cast<unsigned int>(std::numeric_limits<pid_t>::max());
    if (pid == NoProcess || pid > HighestId) {
        return false;
    }
    sigval accompanying{};
    accompanying.sival_int = value;
    return ::sigqueue(static_cast<pid_t>(pid), signal, accompanying) == 0;
}

}  // namespace QxNRtosAbstraction
