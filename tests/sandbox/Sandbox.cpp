#include "Sandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace Sandbox {

namespace {

constexpr const char* CallLog = "/programs.log";

void Require(bool ok, const char* step) {
    if (!ok) {
        fprintf(stderr, "sandbox: %s: %s (tests need root and namespaces; run them through ./qx test)\n",
                step, strerror(errno));
        _exit(97);
    }
}

void MountRoot() {
    Require(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
    const std::string base = "/mnt";
    Require(mount("tmpfs", base.c_str(), "tmpfs", 0, "size=1g") == 0, "mount tmpfs");
    for (const char* directory : {"/upper", "/work", "/root"}) {
        fs::create_directory(base + directory);
    }
    const std::string root = base + "/root";
    Require(
        mount("overlay", root.c_str(), "overlay", 0, "lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work") == 0,
        "mount overlay");
    for (const char* tree : {"/dev", "/sys", QX_BUILD_DIR}) {
        Require(mount(tree, (root + tree).c_str(), "none", MS_BIND | MS_REC, nullptr) == 0, tree);
    }
    Require(chdir(root.c_str()) == 0, "chdir");
    Require(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
    Require(umount2(".", MNT_DETACH) == 0, "detach old root");
    Require(chdir("/") == 0, "chdir /");
    Require(mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount proc");
    Require(mount("tmpfs", "/run", "tmpfs", 0, "size=64m") == 0, "mount /run");
}

void RemoveProductPaths() {
    for (const char* path :
         {"/bin/podman", "/bin/crun", "/usr/bin/conmon", "/bin/docker-compose", "/opt/cni", "/etc/containers",
          "/etc/quolex", "/var/lib/containers", "/var/log/quolex", "/mnt/containers_tools", "/mnt/cfdrive",
          "/userstorage1", "/usr/Quolex", CallLog}) {
        fs::remove_all(path);
    }
}

/// Continues in a child and ends this process with the child's fate.
void ContinueInChild(const char* role) {
    fflush(nullptr);
    const pid_t child = fork();
    Require(child >= 0, role);
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        return;
    }
    int status = 0;
    for (;;) {
        const pid_t ended = wait(&status);
        if (ended == child) {
            break;
        }
        Require(ended > 0 || errno == EINTR, "wait");
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

}  // namespace

void Enter() {
    Require(unshare(CLONE_NEWNS | CLONE_NEWPID) == 0, "unshare");
    ContinueInChild("first process of the sandbox");
    MountRoot();
    RemoveProductPaths();
    // The first process of a process namespace ignores most signals, so the test is the second.
    ContinueInChild("test process");
    for (const char* variable : {"LD_LIBRARY_PATH", "PODMAN_IGNORE_CGROUPSV1_WARNING", "DOCKER_HOST"}) {
        unsetenv(variable);
    }
}

void WriteFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

void InstallProgram(const std::string& path, const std::string& script) {
    fs::create_directories(fs::path(path).parent_path());
    fs::remove(path);
    fs::copy_file(QX_RECORD_PROGRAM, path);
    // What runs under another name than the link by which it was called records that name.
    WriteFile((fs::canonical(path)).string() + ".script", script + "\n");
}

std::vector<ProgramCall> Calls() {
    std::vector<ProgramCall> calls;
    std::istringstream log(ReadFile(CallLog));
    for (std::string line; std::getline(log, line);) {
        std::string text = line.substr(1);
        for (char& c : text) {
            c = c == '\001' ? '\n' : c;
        }
        if (line[0] == 'P') {
            calls.push_back({text, {}, {}});
        } else {
            (line[0] == 'A' ? calls.back().arguments : calls.back().environment).push_back(text);
        }
    }
    return calls;
}

std::string ProgramCall::CommandLine() const {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + argument;
    }
    return line;
}

std::string ProgramCall::Variable(const std::string& name) const {
    for (const std::string& variable : environment) {
        if (variable.starts_with(name + "=")) {
            return variable.substr(name.size() + 1);
        }
    }
    return "(unset)";
}

std::vector<std::string> OpenDescriptors() {
    std::vector<std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        const fs::path target = fs::read_symlink(entry.path(), vanished);
        if (!vanished && !target.string().starts_with("/proc/")) {
            descriptors.push_back(entry.path().filename().string() + " " + target.string());
        }
    }
    return descriptors;
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

bool SleepForPoll() { return usleep(5000) == 0; }

}  // namespace Sandbox
