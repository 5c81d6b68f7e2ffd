#include "CpuSetGroup.h"
#include "CpuSetHierarchy.h"
#include "PlatformTest.h"
#include "QxLinuxBaseUtils.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace PlatformTest;
using namespace QxNLinuxPlatform;
using testing::AllOf;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr const char* Hierarchy = "/sys/fs/cgroup/cpuset";
constexpr const char* Messages = "/run/quolex/messages.jsonl";

/// A set of the real kernel that is gone when the test ends, on a machine with version 1 groups.
class CpuSetV1 : public testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(std::string(Hierarchy) + "/tasks")) {
            GTEST_SKIP() << "cannot run here: this machine has no cpuset hierarchy of version 1";
        }
    }

    const char* name() const { return _group.name().c_str(); }
    std::string read(const char* file) const { return Sandbox::ReadFile(_group.directory() + '/' + file); }
    bool exists() const { return fs::exists(_group.directory()); }
    std::string directory() const { return _group.directory(); }

    int create(std::uint64_t cores) const {
        const QxTBitmap mask{&cores, 64};
        return QxLinuxBaseUtils_CpuSetCreate(name(), &mask);
    }

private:
    CpuSetGroup _group{Hierarchy};
};

TEST_F(CpuSetV1, IsCreatedWithTheCoresOfTheMask) {
    EXPECT_EQ(create(0b11), 0);

    EXPECT_EQ(read("cpuset.cpus"), "0-1\n");
    EXPECT_EQ(read("cpuset.mems"), Sandbox::ReadFile(std::string(Hierarchy) + "/cpuset.mems"));
}

/// A set below another, with a process in it, as a container is one.
class SetBelow {
public:
    SetBelow(const std::string& parent, const char* name) : _directory(parent + "/" + name) {
        fs::create_directory(_directory);
        for (const char* file : {"/cpuset.mems", "/cpuset.cpus"}) {
            std::ofstream(_directory + file) << Sandbox::ReadFile(parent + file);
        }
    }
    SetBelow(const SetBelow&) = delete;
    SetBelow& operator=(const SetBelow&) = delete;
    ~SetBelow() {
        if (_process > 0) {
            kill(_process, SIGKILL);
            waitpid(_process, nullptr, 0);
        }
        rmdir(_directory.c_str());
    }

    void enter() {
        _process = fork();
        if (_process == 0) {
            pause();
            _exit(0);
        }
        std::ofstream(_directory + "/cgroup.procs") << _process << std::flush;
    }

    const std::string& directory() const { return _directory; }

private:
    std::string _directory;
    pid_t _process = -1;
};

TEST_F(CpuSetV1, LosesCoresThatSetsBelowItHaveToo) {
    ASSERT_EQ(create(0b11), 0);
    SetBelow container(directory(), "container");
    SetBelow inner(container.directory(), "inner");
    inner.enter();

    EXPECT_EQ(create(0b10), 0);

    EXPECT_EQ(read("cpuset.cpus"), "1\n");
    EXPECT_EQ(Sandbox::ReadFile(inner.directory() + "/cpuset.cpus"), "1\n");
}

TEST_F(CpuSetV1, ExchangesCoresThatSetsBelowItHaveToo) {
    ASSERT_EQ(create(0b01), 0);
    SetBelow container(directory(), "container");
    container.enter();

    EXPECT_EQ(create(0b10), 0);

    EXPECT_EQ(read("cpuset.cpus"), "1\n");
    EXPECT_EQ(Sandbox::ReadFile(container.directory() + "/cpuset.cpus"), "1\n");
}

TEST_F(CpuSetV1, RemovesEmptySetsBelowThatStandInItsWay) {
    ASSERT_EQ(create(0b11), 0);
    const SetBelow left(directory(), "left-behind");

    EXPECT_EQ(create(0), 0);

    EXPECT_EQ(read("cpuset.cpus"), "\n");
    EXPECT_FALSE(fs::exists(left.directory()));
}

TEST_F(CpuSetV1, KeepsSetsBelowThatAreNotInItsWay) {
    ASSERT_EQ(create(0b10), 0);
    const SetBelow left(directory(), "left-behind");

    EXPECT_EQ(create(0b11), 0);

    EXPECT_TRUE(fs::exists(left.directory()));
}

TEST_F(CpuSetV1, IsRedefined) {
    ASSERT_EQ(create(0b11), 0);

    EXPECT_EQ(create(0b10), 0);

    EXPECT_EQ(read("cpuset.cpus"), "1\n");
}

TEST_F(CpuSetV1, MayBeEmpty) {
    ASSERT_EQ(create(0b10), 0);

    EXPECT_EQ(create(0), 0);

    EXPECT_EQ(read("cpuset.cpus"), "\n");
}

TEST_F(CpuSetV1, SwitchesLoadBalancing) {
    ASSERT_EQ(create(0b10), 0);

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name(), 0), 0);
    EXPECT_EQ(read("cpuset.sched_load_balance"), "0\n");

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name(), 1), 0);
    EXPECT_EQ(read("cpuset.sched_load_balance"), "1\n");
}

TEST_F(CpuSetV1, TakesTheCallingThreadAlone) {
    ASSERT_EQ(create(0b10), 0);
    std::string groups;
    int result = -1;
    std::string tasks;
    std::string self;

    std::thread([&] {
        result = QxLinuxBaseUtils_CpuSetAttach(name(), 0);
        groups = Sandbox::ReadFile("/proc/thread-self/cgroup");
        tasks = read("tasks");
        self = std::to_string(::gettid());
    }).join();

    EXPECT_EQ(result, 0);
    EXPECT_THAT(groups, HasSubstr(std::string("cpuset:/") + name() + '\n'));
    EXPECT_EQ(tasks, self + '\n');
    EXPECT_THAT(Sandbox::ReadFile("/proc/self/cgroup"), HasSubstr("cpuset:/\n")) << "this thread stays";
}

TEST_F(CpuSetV1, TakesAnotherThread) {
    ASSERT_EQ(create(0b10), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach(name(), child), 0);

    EXPECT_THAT(Sandbox::ReadFile("/proc/" + std::to_string(child) + "/cgroup"),
                HasSubstr(std::string("cpuset:/") + name() + '\n'));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(CpuSetV1, WithoutCoresTakesNoThread) {
    ASSERT_EQ(create(0), 0);
    const auto errors = newErrorList();
    const MasterListScope master(*errors);

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach(name(), 0), -1);

    EXPECT_THAT(texts(*errors).at(0), AllOf(HasSubstr("/tasks"), HasSubstr("No space left on device")));
}

TEST_F(CpuSetV1, ReportsAStepThatFailsInTheMasterList) {
    const auto errors = newErrorList();
    const MasterListScope master(*errors);

    EXPECT_EQ(create(0b110), -1) << "there is no core 2";

    ASSERT_EQ(errors->getErrorCount(), 1U);
    EXPECT_THAT(texts(*errors)[0],
                AllOf(HasSubstr(std::string(name()) + "/cpuset.cpus"), HasSubstr("'1-2'"),
                      testing::AnyOf(HasSubstr("Invalid argument"), HasSubstr("out of range"),
                                     HasSubstr("Permission denied"))));
    EXPECT_FALSE(fs::exists(Messages));
}

TEST_F(CpuSetV1, ReportsAStepThatFailsToTheMessageManagerWithoutAMasterList) {
    EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name(), 1), -1);

    EXPECT_THAT(Sandbox::ReadFile(Messages),
                AllOf(HasSubstr(std::string(name()) + "/cpuset.sched_load_balance"),
                      HasSubstr("No such file or directory"), HasSubstr("\"severity\":3")));
}

TEST_F(CpuSetV1, RefusesNegativeThreadsAndMissingMasks) {
    const auto errors = newErrorList();
    const MasterListScope master(*errors);

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach(name(), -1), -1);
    EXPECT_EQ(QxLinuxBaseUtils_CpuSetCreate(name(), nullptr), -1);

    EXPECT_EQ(errors->getErrorCount(), 2U);
    EXPECT_FALSE(exists());
}

TEST_F(CpuSetV1, KeepsNoDescriptorOpen) {
    create(0b11);
    const auto before = Sandbox::OpenDescriptors();

    for (int i = 0; i < 20; ++i) {
        create(0b11);
        QxLinuxBaseUtils_CpuSetLoadBalance(name(), 1);
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

TEST(CpuSet, RefusesNamesThatLeaveTheHierarchy) {
    const auto errors = newErrorList();
    const MasterListScope master(*errors);
    std::uint64_t cores = 1;
    const QxTBitmap mask{&cores, 64};
    unsigned int failures = 0;

    for (const char* name : {"", ".", "..", "a/b", "/", "../a", "a..b"}) {
        EXPECT_EQ(QxLinuxBaseUtils_CpuSetCreate(name, &mask), -1) << name;
        EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name, 1), -1) << name;
        EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach(name, 0), -1) << name;
        failures += 3;
    }
    EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach(nullptr, 0), -1);

    EXPECT_EQ(errors->getErrorCount(), failures + 1);
}

TEST(CpuSet, ReportsASystemWithoutTheController) {
    const auto errors = newErrorList();
    const MasterListScope master(*errors);
    ASSERT_EQ(::mount("tmpfs", "/sys/fs/cgroup", "tmpfs", 0, nullptr), 0);

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetAttach("test", 0), -1);

    EXPECT_THAT(texts(*errors).at(0), HasSubstr("cpuset controller"));
}

/// A mount table of which only version 2 mounts at `unified` have the controller.
std::optional<CpuSetHierarchy> choose(const std::vector<MountEntry>& table, const std::string& unified) {
    return findCpuSetHierarchy(table, [&unified](const std::string& path) -> std::string {
        return path == unified + "/cgroup.controllers" ? "cpu cpuset memory\n" : "cpu cpusets\n";
    });
}

const MountEntry V1Cpu{31, 1, "cgroup", "/cg/cpu", "cgroup", "rw,cpu,cpuacct"};
const MountEntry V1CpuSet{32, 1, "cgroup", "/cg/cpuset", "cgroup", "rw,cpu,cpuset"};
const MountEntry V2{33, 1, "cgroup2", "/cg/unified", "cgroup2", "rw"};
const MountEntry OtherV2{34, 1, "cgroup2", "/cg/other", "cgroup2", "rw"};

TEST(CpuSetHierarchyChoice, PrefersVersionOne) {
    const auto chosen = choose({V2, V1Cpu, V1CpuSet}, "/cg/unified");

    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->version, CpuSetHierarchy::Version::V1);
    EXPECT_EQ(chosen->directory, "/cg/cpuset");
}

TEST(CpuSetHierarchyChoice, TakesVersionTwoThatHasTheController) {
    const auto chosen = choose({V1Cpu, OtherV2, V2}, "/cg/unified");

    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->version, CpuSetHierarchy::Version::V2);
    EXPECT_EQ(chosen->directory, "/cg/unified");
}

TEST(CpuSetHierarchyChoice, FindsNoneWithoutTheController) {
    EXPECT_FALSE(choose({V1Cpu, OtherV2}, "/cg/unified"));
    EXPECT_FALSE(choose({}, ""));
}

TEST(CpuSetHierarchyChoice, PassesOverAHierarchyThatIsCovered) {
    const MountEntry cover{40, 32, "tmpfs", "/cg/cpuset", "tmpfs", "rw"};

    EXPECT_FALSE(choose({V1CpuSet, cover}, ""));
}

}  // namespace
