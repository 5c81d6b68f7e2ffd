#include "BoardTest.h"

#include "QxNJson.h"

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace OnBoard {

namespace {

int ExitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

Outcome Shell(const std::string& command) {
    FILE* pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
    Outcome outcome{-1, {}};
    char chunk[4096];
    for (size_t length; (length = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        outcome.output.append(chunk, length);
    }
    outcome.status = ExitCodeOf(pclose(pipe));
    return outcome;
}

std::string Output(const std::string& command) {
    Outcome outcome = Shell(command);
    EXPECT_EQ(outcome.status, 0) << command << "\n" << outcome.output;
    while (!outcome.output.empty() && outcome.output.back() == '\n') {
        outcome.output.pop_back();
    }
    return outcome.output;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::vector<std::string> LogLines() {
    std::vector<std::string> texts;
    for (const std::string& line : Lines("/var/log/quolex/container.log")) {
        const size_t text = line.find("[");
        texts.push_back(text == std::string::npos ? line : line.substr(text));
    }
    return texts;
}

std::vector<std::string> Messages() {
    std::vector<std::string> messages;
    for (const std::string& line : Lines("/run/quolex/messages.jsonl")) {
        const QxNJson::json message = QxNJson::json::parse(line);
        EXPECT_FALSE(message.is_invalid()) << line;
        messages.push_back(std::to_string(message["severity"].get<int>()) + " " +
                           message["text"].get<std::string>());
    }
    return messages;
}

void ConfigurePlatform(const std::string& ini) { WriteFile("/etc/quolex/platform.ini", ini); }

void WriteSettings(const std::string& json) { WriteFile(SETTINGS_FILE, json); }

int StateInFile() {
    std::ifstream file(SETTINGS_FILE);
    return QxNJson::json::parse(file)["state"].get<int>();
}

bool Logged(const std::string& text) {
    return Eventually([&] {
        const auto lines = LogLines();
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    });
}

bool PodmanAnswers() {
    return Eventually([] {
        return Shell("curl -sf -m 5 --unix-socket /run/podman/podman.sock http://d/v5.8.1/libpod/_ping")
                   .output == "OK";
    });
}

std::string AskPodman(const std::string& endpoint) {
    EXPECT_TRUE(PodmanAnswers());
    return Output("curl -sf -m 30 --unix-socket /run/podman/podman.sock http://d/v5.8.1" + endpoint);
}

void ImportBusybox() { Output("podman import /opt/board/busybox.tar localhost/busybox:1"); }

std::vector<pid_t> Processes(const std::string& text) {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos || std::stoi(name) == getpid()) {
            continue;
        }
        std::string commandLine = ReadFile(entry.path() / "cmdline");
        std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
        if (commandLine.find(text) != std::string::npos) {
            found.push_back(std::stoi(name));
        }
    }
    return found;
}

std::vector<int> Children() {
    std::vector<int> children;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::istringstream list(ReadFile(task.path() / "children"));
        for (int pid; list >> pid;) {
            children.push_back(pid);
        }
    }
    return children;
}

std::vector<std::string> OpenDescriptors() {
    std::vector<std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        const fs::path target = fs::read_symlink(entry.path(), vanished);
        if (!vanished && !target.string().starts_with("/proc/")) {
            descriptors.push_back(target);
        }
    }
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

bool CanMoveThreads() { return fs::exists("/sys/fs/cgroup/cpuset/tasks"); }

std::string ContainerCpuSet() {
    return CanMoveThreads() ? "/sys/fs/cgroup/cpuset/libpod_parent" : "/sys/fs/cgroup/libpod_parent";
}

std::pair<int, int> PodmanVersion() {
    int major = 0;
    int minor = 0;
    sscanf(Output("podman version --format '{{.Client.Version}}' 2>/dev/null").c_str(), "%d.%d", &major,
           &minor);
    return {major, minor};
}

/// @return whether a process has a handler for a signal
static bool Handles(pid_t pid, int signal) {
    const std::string caught = Output("sed -n 's/^SigCgt:\t//p' /proc/" + std::to_string(pid) + "/status");
    return (std::stoull("0" + caught, nullptr, 16) >> (signal - 1) & 1) != 0;
}

Daemon::Daemon(const std::vector<std::string>& options, const std::string& variable) {
    std::vector<std::string> words{"/opt/qx/bin/qxcontainerd"};
    words.insert(words.end(), options.begin(), options.end());
    _pid = fork();
    if (_pid == 0) {
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        if (!variable.empty()) {
            putenv(const_cast<char*>(variable.c_str()));
        }
        execv(arguments[0], arguments.data());
        _exit(97);
    }
    if (getenv("QX_UNDER_TIMER") != nullptr) {
        EXPECT_TRUE(Eventually([this] { return Handles(_pid, SIGURG); })) << "nobody interrupts it";
    }
}

Daemon::~Daemon() {
    if (_pid > 0) {
        Signal(SIGKILL);
        Wait();
    }
}

void Daemon::Signal(int signal) const { kill(_pid, signal); }

int Daemon::Wait() {
    int status = 0;
    waitpid(_pid, &status, 0);
    _pid = -1;
    return ExitCodeOf(status);
}

int Daemon::Stop() {
    Signal(SIGTERM);
    return Wait();
}

}  // namespace OnBoard
