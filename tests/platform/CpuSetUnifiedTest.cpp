#include "CpuSetGroup.h"
#include "PlatformTest.h"
#include "QxLinuxBaseUtils.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <filesystem>
#include <thread>

using namespace PlatformTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

/// A version 2 hierarchy of the real kernel. Where it lacks the cpuset controller, files that stand in for
/// the controller's show what would be written to them; groups and the moving of processes are the kernel's.
class CpuSetV2 : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(Hierarchy);
        if (::mount("cgroup2", Hierarchy, "cgroup2", 0, nullptr) != 0) {
            GTEST_SKIP() << "cannot run here: this machine has no version 2 control groups";
        }
        // No hierarchy of version 1 may be found.
        ASSERT_EQ(::mount("tmpfs", "/sys/fs/cgroup", "tmpfs", 0, nullptr), 0);
        standIn("cgroup.controllers", "cpuset cpu\n");
        standIn("cgroup.subtree_control", "");
    }

    void TearDown() override {
        ::umount2(_group.directory().c_str(), MNT_DETACH);
        for (const char* file : {"/cgroup.controllers", "/cgroup.subtree_control"}) {
            ::umount((std::string(Hierarchy) + file).c_str());
        }
    }

    /// Lets the set be a plain directory with the controller's files.
    void standInForTheSet() const {
        fs::create_directory(_group.directory());
        ASSERT_EQ(::mount("tmpfs", _group.directory().c_str(), "tmpfs", 0, nullptr), 0);
        for (const char* file : {"cpuset.cpus", "cpuset.cpus.partition"}) {
            Sandbox::WriteFile(_group.directory() + '/' + file, "");
        }
    }

    int create(std::uint64_t cores) const {
        const QxTBitmap mask{&cores, 64};
        return QxLinuxBaseUtils_CpuSetCreate(name(), &mask);
    }

    const char* name() const { return _group.name().c_str(); }
    std::string read(const char* file) const { return Sandbox::ReadFile(_group.directory() + '/' + file); }

    static constexpr const char* Hierarchy = "/run/unified";
    CpuSetGroup _group{Hierarchy};

private:
    static void standIn(const std::string& name, const std::string& content) {
        const std::string file = "/run/stand-in-" + name;
        Sandbox::WriteFile(file, content);
        ASSERT_EQ(
            ::mount(file.c_str(), (std::string(Hierarchy) + '/' + name).c_str(), nullptr, MS_BIND, nullptr),
            0);
    }
};

TEST_F(CpuSetV2, IsCreatedWithTheCoresOfTheMask) {
    standInForTheSet();

    EXPECT_EQ(create(0b1100'0010), 0);

    EXPECT_EQ(Sandbox::ReadFile("/run/stand-in-cgroup.subtree_control"), "+cpuset\n");
    EXPECT_EQ(read("cpuset.cpus"), "1,6-7\n");
}

TEST_F(CpuSetV2, SwitchesLoadBalancingByItsPartition) {
    standInForTheSet();

    EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name(), 1), 0);
    EXPECT_EQ(read("cpuset.cpus.partition"), "member\n");

    Sandbox::WriteFile(_group.directory() + "/cpuset.cpus.partition", "");
    EXPECT_EQ(QxLinuxBaseUtils_CpuSetLoadBalance(name(), 0), 0);
    EXPECT_EQ(read("cpuset.cpus.partition"), "isolated\n");
}

TEST_F(CpuSetV2, TakesTheWholeProcessIntoAGroupOfItsOwnAndSaysSo) {
    fs::create_directory(_group.directory());
    const auto messages = newErrorList();
    int result = -1;

    std::thread([&] {
        const MasterListScope master(*messages);
        result = QxLinuxBaseUtils_CpuSetAttach(name(), 0);
    }).join();

    EXPECT_EQ(result, 0);
    EXPECT_THAT(Sandbox::ReadFile("/proc/self/cgroup"), HasSubstr(std::string("0::/") + name() + "/host\n"));
    EXPECT_EQ(read("cgroup.procs"), "");
    ASSERT_EQ(messages->getMessages().size(), 1U);
    EXPECT_EQ(messages->getMessages()[0].severity, QxNSeverity::Warning);
    EXPECT_THAT(messages->getMessages()[0].text, HasSubstr("whole process"));
}

}  // namespace
