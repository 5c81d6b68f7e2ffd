// What happens when memory runs out. A program of its own, because it stands between the library and operator
// new.

#include "Board.h"
#include "ComposeAccess.h"
#include "FakePodman.h"
#include "QxCContainer.h"
#include "QxCRTELog.h"
#include "QxCWriteThroughCacheGuard.h"
#include "ReplacedNew.h"
#include "support/ChildProcess.h"
#include "support/Directory.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <thread>

using QxNContainer::QxCContainer;
using QxNContainer::QxCWriteThroughCacheGuard;
using testing::Contains;
using testing::IsEmpty;
using testing::Pair;

namespace {

// The platform is exempt: it is compiled so that it tells when it is entered and left.
thread_local int platformDepth = 0;
thread_local long allocationsLeft = -1;  // -1: without end
bool actionsFail = false;
bool spawnFails = false;

void* Allocate(size_t size) {
    if (platformDepth == 0 && allocationsLeft >= 0 && allocationsLeft-- == 0) {
        allocationsLeft = 0;
        throw std::bad_alloc();
    }
    return AllocateReally(size);
}

}  // namespace

extern "C" {

void __cyg_profile_func_enter(void*, void*) { ++platformDepth; }
void __cyg_profile_func_exit(void*, void*) { --platformDepth; }

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) {
    using Add = int(posix_spawn_file_actions_t*, int, int);
    static auto* const add = reinterpret_cast<Add*>(dlsym(RTLD_NEXT, "posix_spawn_file_actions_adddup2"));
    return actionsFail ? ENOMEM : add(actions, from, to);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment) {
    static auto* const spawn = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    if (spawnFails) {
        errno = EPERM;
        return EAGAIN;
    }
    return spawn(pid, path, actions, attributes, arguments, environment);
}
}

namespace {

/// The calling thread gets so much memory and then none until the end of the scope.
class ScarceMemory {
public:
    explicit ScarceMemory(long allocations) { allocationsLeft = allocations; }
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
    ~ScarceMemory() { allocationsLeft = -1; }
};

constexpr long MoreThanEverNeeded = 2000;

/// Runs something that may end its process: the JSON type takes memory to free its values.
/// @return whether it came to its end without an exception
bool SucceedsInChild(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int quiet = open("/dev/null", O_WRONLY);
        dup2(quiet, STDERR_FILENO);
        try {
            body();
        } catch (const std::bad_alloc&) {
            _exit(1);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
}

// --- Files ---

TEST(ScarceMemory, SettingsAreSavedWholeOrNotAtAll) {
    QxCContainer& service = QxCContainer::GetInstance();
    bool saved = false;
    long allocations = 0;
    for (; !saved && allocations < MoreThanEverNeeded; ++allocations) {
        saved = SucceedsInChild([&] {
            const ScarceMemory scarce(allocations);
            if (!service.SetContainerServiceUserSettings({9090, 2})) {
                throw std::bad_alloc();
            }
        });
        const QxNJson::json settings = QxNJson::json::parse(Board::Settings());
        ASSERT_FALSE(settings.is_invalid()) << "after " << allocations << " allocations";
        if (saved) {
            EXPECT_EQ(settings["tcp_port"], 9090);
        }
    }
    EXPECT_TRUE(saved);
    EXPECT_GT(allocations, 5);
}

TEST(ScarceMemory, ThePluginConfigurationIsSavedWholeOrNotAtAll) {
    PluginMaker::Write(Board::PLUGINS_DIR + "/network.crp", PluginMaker::Trailer("network", "1.0.0"));
    CRP::QxCRPHandler handler(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
    handler.scanPluginsDir();
    const std::string before = R"({"deactivated_plugins": [], "kept": 1})";
    bool saved = false;
    long allocations = 0;
    for (; !saved && allocations < MoreThanEverNeeded; ++allocations) {
        Sandbox::WriteFile(Board::PLUGIN_CONFIG_FILE, before);
        saved = SucceedsInChild([&] {
            const ScarceMemory scarce(allocations);
            if (handler.addPluginToConfig("network", "1.0.0") != 0) {
                throw std::bad_alloc();
            }
        });
        const std::string config = Sandbox::ReadFile(Board::PLUGIN_CONFIG_FILE);
        if (config != before) {
            ASSERT_EQ(QxNJson::json::parse(config)["deactivated_plugins"].size(), 1U)
                << "after " << allocations << " allocations: " << config;
        }
    }
    EXPECT_TRUE(saved);
    EXPECT_GT(allocations, 5);
}

TEST(ScarceMemory, TheDiskIsSwitchedBackWithoutMemory) {
    Board::ProvideUserStorage();
    {
        const auto guard = QxCWriteThroughCacheGuard::Create(true);
        ASSERT_EQ(Sandbox::ReadFile(Board::WriteCache), "write through");
        allocationsLeft = 0;
    }
    allocationsLeft = -1;
    EXPECT_EQ(Sandbox::ReadFile(Board::WriteCache), "write back");
}

TEST(ScarceMemory, TheDiskIsForcedBackWithoutMemory) {
    Board::ProvideUserStorage();
    Sandbox::WriteFile(Board::WriteCache, "write through");
    allocationsLeft = 0;
    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
    allocationsLeft = -1;
    EXPECT_EQ(Sandbox::ReadFile(Board::WriteCache), "write back");
}

TEST(ScarceMemory, LinkingTheToolsThrowsAndDoesNotEndTheProcess) {
    Board::ProvideMountedFirmware();
    Sandbox::WriteFile(Board::CNI_PLUGINS + "/a-plugin-with-a-name-that-needs-memory", {});
    QxCContainer& service = QxCContainer::GetInstance();
    bool linked = false;
    int failures = 0;
    for (long allocations = 0; !linked && allocations < MoreThanEverNeeded; ++allocations) {
        try {
            const ScarceMemory scarce(allocations);
            service.SymlinkContainerTools();
            linked = true;
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }
    EXPECT_TRUE(linked);
    EXPECT_GT(failures, 5);
}

TEST(ScarceMemory, LookingIntoADirectoryThrowsAndDoesNotEndTheProcess) {
    Sandbox::WriteFile("/directory/a-file-with-a-name-that-needs-memory", {});
    const std::string path = "/directory";
    bool isEmpty = true;
    int failures = 0;
    for (long allocations = 0; isEmpty && allocations < MoreThanEverNeeded; ++allocations) {
        try {
            const ScarceMemory scarce(allocations);
            isEmpty = QxNSupport::IsEmptyDirectory(path);
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }
    EXPECT_FALSE(isEmpty);
    EXPECT_GT(failures, 0);
}

// --- Programs ---

TEST(ScarceMemory, AProgramWithoutItsDescriptorsIsNotStarted) {
    Sandbox::InstallProgram("/bin/tool", "echo out");
    ComposeFileHandlerTest compose;
    actionsFail = true;

    EXPECT_THAT(compose.RunProgram("/bin/tool", {"tool"}),
                Pair(5, "spawning command failed: Cannot allocate memory"));

    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
}

TEST(Spawning, APluginsShellIsToldByTheErrorNumber) {
    CRP::QxCRPLoader loader;
    CRP::PluginInfo plugin{};
    memcpy(plugin.header.initCommand, "true", sizeof("true"));
    spawnFails = true;

    EXPECT_FALSE(loader.execInitCommand(plugin, "/mnt"));

    EXPECT_THAT(Recording::Logs(), Contains("[ERROR] Quolex Container Runtime: Initializing plugin failed: "
                                            "posix_spawn('/bin/sh'): Operation not permitted"));
}

// --- The log and the cores ---

TEST(ScarceMemory, ALineIsLoggedWithoutMemory) {
    const std::string text(300, 'x');
    allocationsLeft = 0;
    QxCRTE_LOG_Impl(RteLogLevel::Error, "%s %d", text.c_str(), 5);
    allocationsLeft = -1;
    EXPECT_THAT(Recording::Logs(), Contains("[ERROR] " + text + " 5"));
}

TEST(ScarceMemory, CoresAreAssignedWithoutMemory) {
    Recording::TheScript().totalCores = 8;
    QxCContainer& service = QxCContainer::GetInstance();
    ASSERT_TRUE(service.SetContainerServiceUserSettings({0, 2}));
    allocationsLeft = 0;
    const bool isAssigned = service.AssignCpuCores();
    allocationsLeft = -1;
    EXPECT_TRUE(isAssigned);
}

// --- The monitor thread ---

TEST(ScarceMemory, TheMonitorThreadReportsAndEnds) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = QxCContainer::GetInstance();
    constexpr const char* Line = "[ERROR] Quolex Container Utils: Not enough memory for the Podman services";
    for (const long allocations : {0L, 1L, 3L, 6L, 9L}) {
        Recording::Forget();
        {
            const ScarceMemory scarce(allocations);
            EXPECT_EQ(QxCContainer::ThreadHandler(&service), nullptr);
        }
        EXPECT_THAT(Recording::Logs(), Contains(Line)) << allocations;
        EXPECT_THAT(Recording::Events(), Contains("sendErrorList(0)")) << allocations;
        EXPECT_EQ(Recording::LiveLists(), 0) << allocations;
    }
    service.Stop();
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(ScarceMemory, AStopThatThrowsHasEndedTheServicesAndTheThread) {
    FakePodman{}.Install();
    QxCContainer& service = QxCContainer::GetInstance();
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    EXPECT_THROW(
        {
            const ScarceMemory scarce(0);
            service.Stop();
        },
        std::bad_alloc);

    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_THAT(Recording::Events(), Contains("joinThread(-1)"));
    Recording::Forget();
    EXPECT_TRUE(service.Stop());
    EXPECT_THAT(Recording::Events("joinThread"), IsEmpty());
    EXPECT_EQ(service.GetContainerServiceStatus(false), ContainerServiceState::Stopped);
}

// --- Descriptors and signals ---

TEST(ScarceDescriptors, AServiceIsCollectedWithoutAProcessDescriptor) {
    const QxNSupport::SpawnResult child = QxNSupport::Spawn("/bin/sh", {"sh", "-c", "sleep 0.2"});
    FailSystemCall(SYS_pidfd_open, EMFILE);

    const auto begin = std::chrono::steady_clock::now();
    QxNSupport::ReapWithin(child.pid, 60000);

    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30))
        << "not all the time that it may take";
}

TEST(Signals, DoNotShortenTheCollectingOfAService) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    const QxNSupport::SpawnResult child = QxNSupport::Spawn("/bin/sh", {"sh", "-c", "sleep 0.3"});
    std::atomic<bool> collected{false};
    const pthread_t self = pthread_self();
    std::thread interrupter([&] {
        while (!collected) {
            pthread_kill(self, SIGUSR1);
            usleep(2000);
        }
    });

    QxNSupport::ReapWithin(child.pid, 20000);
    collected = true;
    interrupter.join();

    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(Signals, DoNotShortenTheTimeThatServicesGetBeforeTheyAreWatched) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = QxCContainer::GetInstance();
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    std::atomic<bool> ended{false};
    std::atomic<bool> spawned{false};
    std::chrono::steady_clock::time_point start;
    Recording::TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Starting Podman service") != std::string::npos) {
            start = std::chrono::steady_clock::now();
            spawned = true;
        }
    };
    const pthread_t self = pthread_self();
    std::thread interrupter([&] {
        while (!ended) {
            // Not before: the bulk start does not wait again after an interruption.
            if (spawned) {
                pthread_kill(self, SIGUSR1);
            }
            usleep(20000);
        }
    });

    QxCContainer::ThreadHandler(&service);
    ended = true;
    interrupter.join();

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
}

}  // namespace
