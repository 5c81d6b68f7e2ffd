#include "ProcessName.h"
#include "QxNRtosAbstraction.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <limits>

using namespace QxNRtosAbstraction;
using QxNLinuxPlatform::hasName;
using QxNLinuxPlatform::isRunningProgram;
using QxNLinuxPlatform::ProcessFacts;
namespace fs = std::filesystem;

namespace {

constexpr const char* LongName = "QxInventoryManager";

/// A child process that ends with its owner.
class Child {
public:
    explicit Child(const std::function<void()>& body) : _pid(::fork()) {
        if (_pid == 0) {
            body();
            ::_exit(0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }

    unsigned int id() const { return static_cast<unsigned int>(_pid); }
    std::string file(const char* name) const { return "/proc/" + std::to_string(_pid) + '/' + name; }

private:
    pid_t _pid;
};

void sleepAs(const char* path, const char* argumentZero) { ::execl(path, argumentZero, "1000", nullptr); }

/// @return a process in which the program runs, under the name of its file unless told otherwise
std::unique_ptr<Child> run(const std::string& path, const char* argumentZero = nullptr) {
    if (!fs::exists(path)) {
        fs::create_directories(fs::path(path).parent_path());
        fs::copy_file("/bin/sleep", path);
    }
    const std::string name = argumentZero != nullptr ? argumentZero : path;
    auto child = std::make_unique<Child>([&] { sleepAs(path.c_str(), name.c_str()); });
    // The kernel shows the new program a moment before its arguments.
    EXPECT_TRUE(Sandbox::Eventually([&] {
        std::error_code error;
        return fs::read_symlink(child->file("exe"), error) == path &&
               Sandbox::ReadFile(child->file("cmdline")).starts_with(name + '\0');
    }));
    return child;
}

TEST(ProcessSearch, FindsAProgramByItsWholeName) {
    const auto process = run(std::string("/opt/") + LongName);

    EXPECT_EQ(getProcessID(LongName), process->id());
}

TEST(ProcessSearch, FindsNoProgramByTheBeginningOfItsName) {
    const auto process = run(std::string("/opt/") + LongName);

    EXPECT_EQ(getProcessID("QxInventory"), NoProcess);
    EXPECT_EQ(getProcessID("QxInventoryMana"), NoProcess) << "the kernel's thread name";
    EXPECT_EQ(getProcessID("QxInventoryManagerX"), NoProcess);
}

TEST(ProcessSearch, FindsAProgramThatCallsItselfOtherwise) {
    const auto process = run(std::string("/opt/") + LongName, "other");

    EXPECT_EQ(getProcessID(LongName), process->id());
    EXPECT_EQ(getProcessID("other"), process->id());
}

TEST(ProcessSearch, FindsAProgramWhoseFileWasReplaced) {
    const std::string path = std::string("/opt/") + LongName;
    const auto process = run(path, "other");
    fs::remove(path);

    EXPECT_EQ(getProcessID(LongName), process->id());
}

TEST(ProcessSearch, FindsAScriptByItsName) {
    Sandbox::WriteFile("/opt/QxScript", "#!/bin/sh\nread line\n");
    fs::permissions("/opt/QxScript", fs::perms::owner_all);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Child process([&] {
        ::dup2(ends[0], 0);
        ::execl("/opt/QxScript", "/opt/QxScript", nullptr);
    });

    EXPECT_TRUE(Sandbox::Eventually([&] { return getProcessID("QxScript") == process.id(); }));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(ProcessSearch, GivesTheLowestOfSeveralIds) {
    const auto first = run("/opt/QxTwice");
    const auto second = run("/opt/QxTwice");

    EXPECT_EQ(getProcessID("QxTwice"), std::min(first->id(), second->id()));
}

TEST(ProcessSearch, PassesOverZombies) {
    const Child zombie([] { ::prctl(PR_SET_NAME, "QxZombie"); });
    ASSERT_TRUE(Sandbox::Eventually(
        [&] { return Sandbox::ReadFile(zombie.file("stat")).find("(QxZombie) Z") != std::string::npos; }));

    EXPECT_EQ(getProcessID("QxZombie"), NoProcess);
}

TEST(ProcessSearch, FindsNothingForNoName) {
    EXPECT_EQ(getProcessID(nullptr), NoProcess);
    EXPECT_EQ(getProcessID(""), NoProcess);
    EXPECT_EQ(getProcessID("QxNoSuchProgram"), NoProcess);
}

TEST(ProcessSearch, IsNotDisturbedByProcessesThatVanish) {
    const auto process = run(std::string("/opt/") + LongName);
    const Child starter([] {
        for (;;) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::_exit(0);
            }
            ::waitpid(child, nullptr, 0);
        }
    });

    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(getProcessID(LongName), process->id());
    }
}

TEST(ProcessSearch, KeepsNoDescriptorOpen) {
    getProcessID("QxNoSuchProgram");
    const auto before = Sandbox::OpenDescriptors();

    for (int i = 0; i < 20; ++i) {
        getProcessID("QxNoSuchProgram");
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

TEST(ProcessName, OfFullLengthCountsUnlessItIsCut) {
    const std::string fifteen = "ABCDEFGHIJKLMNO";

    EXPECT_TRUE(hasName({{"/bin/sh", "/opt/" + fifteen}, "/bin/dash", fifteen}, fifteen));
    EXPECT_FALSE(hasName({{"/bin/sh", "/opt/" + fifteen + "P"}, "/bin/dash", fifteen}, fifteen));
    EXPECT_FALSE(hasName({{"other"}, "/opt/" + fifteen + "P", fifteen}, fifteen));
}

TEST(ProcessName, IsNeverEmpty) {
    EXPECT_FALSE(hasName(ProcessFacts{}, ""));
    EXPECT_FALSE(hasName({{""}, "", ""}, ""));
}

TEST(ProcessState, TellsProgramsFromZombiesAndKernelThreads) {
    EXPECT_TRUE(isRunningProgram("7 (name) S 1 7 7 0 -1 4194304 0"));
    EXPECT_TRUE(isRunningProgram("7 (a) Z (b)) T 1 7 7 0 -1 4194304 0"));
    EXPECT_FALSE(isRunningProgram("7 (name) Z 1 7 7 0 -1 4194304 0"));
    EXPECT_FALSE(isRunningProgram("7 (name) X 1 7 7 0 -1 4194304 0"));
    EXPECT_FALSE(isRunningProgram("2 (kthreadd) S 0 0 0 0 -1 2129984 0"));
    EXPECT_FALSE(isRunningProgram(""));
    EXPECT_FALSE(isRunningProgram("7 (name) S"));
}

TEST(Signal, ReachesTheProcessWithItsValue) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGWINCH);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    const Child receiver([&] {
        siginfo_t info{};
        const int signal = ::sigwaitinfo(&set, &info);
        const int received[3] = {signal, info.si_code, info.si_value.sival_int};
        static_cast<void>(!::write(ends[1], received, sizeof(received)));
    });

    EXPECT_TRUE(signalProcess(receiver.id(), SIGWINCH, 4711));

    int received[3] = {};
    ASSERT_EQ(::read(ends[0], received, sizeof(received)), static_cast<ssize_t>(sizeof(received)));
    EXPECT_EQ(received[0], SIGWINCH);
    EXPECT_EQ(received[1], SI_QUEUE);
    EXPECT_EQ(received[2], 4711);
    ::close(ends[0]);
    ::close(ends[1]);
}

/// A deadly signal to a group or to all processes would end the first process of the group, too.
TEST(Signal, ToNoPositiveIdReachesNobody) {
    const Child bystander([] { ::pause(); });

    EXPECT_FALSE(signalProcess(NoProcess, SIGKILL, 0));
    EXPECT_FALSE(signalProcess(std::numeric_limits<unsigned int>::max(), SIGKILL, 0));
    EXPECT_FALSE(signalProcess(0U - bystander.id(), SIGKILL, 0));
    EXPECT_FALSE(signalProcess(0x80000000U, SIGKILL, 0));

    EXPECT_EQ(::waitpid(static_cast<pid_t>(bystander.id()), nullptr, WNOHANG), 0) << "still runs";
}

TEST(Signal, ToTheFirstProcessIsAllowed) { EXPECT_TRUE(signalProcess(1, 0, 0)); }

TEST(Signal, ToAProcessThatDoesNotExistFails) {
    EXPECT_FALSE(signalProcess(std::numeric_limits<int>::max(), SIGWINCH, 0));
}

TEST(Signal, WithAnInvalidNumberFails) {
    EXPECT_FALSE(signalProcess(static_cast<unsigned int>(::getpid()), 4711, 0));
}

}  // namespace
