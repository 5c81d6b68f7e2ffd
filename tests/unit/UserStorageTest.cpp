#include "Board.h"
#include "QxCContainer.h"
#include "QxCErrorManager.h"
#include "QxCWriteThroughCacheGuard.h"
#include "podman/UserStorage.h"

#include <gmock/gmock.h>

using QxNContainer::QxCContainer;
using QxNContainer::QxCWriteThroughCacheGuard;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Takes the place of the C library's: what the attribute holds at this moment tells the order.
extern "C" void sync() noexcept {
    Recording::Record("sync, the attribute holds '" + Sandbox::ReadFile(Board::WriteCache) + "'");
}

namespace {

constexpr const char* SwitchedLine =
    "[DEBUG] Quolex Container Utils: Switched user storage disk to write-through mode for Podman request";
constexpr const char* SwitchedBackLine =
    "[DEBUG] Quolex Container Utils: Switched user storage disk back to write-back mode after Podman request";

std::string CacheMode() { return Sandbox::ReadFile(Board::WriteCache); }

// --- Is the user storage usable? ---

TEST(UserStorage, IsUsableWhenExt4IsMounted) {
    Board::ProvideUserStorage();
    std::string reason = "untouched";

    EXPECT_TRUE(QxCContainer::GetInstance().HasValidUserStorage(&reason));
    EXPECT_EQ(reason, "untouched");
}

struct RefusalCase {
    const char* name;
    void (*prepare)();
    const char* reason;
    bool asksForMounts = true;
};

class UserStorageRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(UserStorageRefusal, GivesItsReason) {
    GetParam().prepare();
    const QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    std::string reason = "old";

    EXPECT_FALSE(service.HasValidUserStorage(&reason));
    EXPECT_EQ(reason, GetParam().reason);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
    EXPECT_THAT(Recording::Events("getBlockDeviceMountInfo"), SizeIs(GetParam().asksForMounts ? 1 : 0));
    EXPECT_FALSE(service.HasValidUserStorage(nullptr));
    EXPECT_EQ(Recording::LiveLists(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Causes, UserStorageRefusal,
    testing::Values(
        RefusalCase{"Missing", [] {}, "Container service requires a mounted userstorage1 device", false},
        RefusalCase{"PlainDirectory", [] { std::filesystem::create_directory("/userstorage1"); },
                    "Container service requires a mounted userstorage1 device", false},
        RefusalCase{
            "NotInTheMountInformation",
            [] {
                Board::MountUserStorage();
                TheScript().mounts = {{"/userstorage", "/dev/sda1", 2}, {"/userstorage12", "/dev/sda2", 2}};
            },
            "Container service could not find the userstorage1 device among the mounted block devices"},
        RefusalCase{
            "OtherFileSystem",
            [] {
                Board::MountUserStorage();
                TheScript().mounts = {{"/userstorage1", "/dev/sda1", 3}, {"/userstorage1", "/dev/sda1", 2}};
            },
            "Container service requires EXT4 filesystem type on user storage device"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(UserStorage, MissingMountInformationIsAnError) {
    Board::MountUserStorage();
    TheScript().mountInfoFails = true;
    const QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    std::string reason;

    EXPECT_FALSE(service.HasValidUserStorage(&reason));

    const auto events = Recording::Events();
    EXPECT_THAT(std::vector(events.begin(), events.begin() + 4),
                ElementsAre("createErrorList(0, 1, 20, 5, 300)", "getBlockDeviceMountInfo", "deleteErrorList",
                            testing::StartsWith("log [ERROR] ")));
    EXPECT_EQ(reason, "Container service could not determine the mounted block devices");
    EXPECT_EQ(Recording::LiveLists(), 0);
    EXPECT_THAT(
        Recording::Logs(),
        testing::Contains("[ERROR] Quolex Container Utils:Error: Could not parse device information\n"));
}

TEST(UserStorage, AskForMountsWithTheMasterListWhereThereIsOne) {
    Board::ProvideUserStorage();
    const QxCContainer& service = QxCContainer::GetInstance();
    const Recording::MasterErrorList master;
    Recording::Forget();

    EXPECT_TRUE(service.HasValidUserStorage(nullptr));

    EXPECT_THAT(Recording::Events(), ElementsAre("getBlockDeviceMountInfo"));
}

TEST(UserStorage, FieldsOfTheMountInformationEndAtTheirBorder) {
    TheScript().mounts = {{std::string(128, '/'), "/dev/sdb1", 2},
                          {"/userstorage1", "/dev/" + std::string(379, 'x'), 2}};
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    QxCErrorListPool* errors = manager->createErrorList(0, 1, 20, 5, 300);

    EXPECT_EQ(QxCWriteThroughCacheGuard::GetUserStorageWriteCacheSysfsPath(*errors),
              "/sys/block/" + std::string(379, 'x') + "/queue/write_cache");
    manager->deleteErrorList(errors);
}

// --- Which disk is it? ---

struct DiskCase {
    const char* device;
    const char* disk;
};

class DiskName : public testing::TestWithParam<DiskCase> {};

TEST_P(DiskName, IsThePartitionWithoutItsNumber) {
    EXPECT_EQ(QxNContainer::QxNUserStorage::DiskNameOf(GetParam().device), GetParam().disk);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DiskName,
    testing::Values(DiskCase{"/dev/sda1", "sda"}, DiskCase{"/dev/sdb2", "sdb"}, DiskCase{"/dev/sda15", "sda"},
                    DiskCase{"/dev/vda", "vda"}, DiskCase{"/dev/nvme0n1p1", "nvme0n1"},
                    DiskCase{"/dev/nvme0n1p3", "nvme0n1"}, DiskCase{"/dev/nvme10n2p12", "nvme10n2"},
                    DiskCase{"/dev/nvme0n1", "nvme0n"}, DiskCase{"/dev/mmcblk0p1", "mmcblk0p"},
                    DiskCase{"/dev/nbd0p1", "nbd0p"}, DiskCase{"sda1", "sda"},
                    DiskCase{"/dev/disk/by-x/sdc3", "sdc"}, DiskCase{"/dev/123", "123"},
                    DiskCase{"/dev/p1", "p"}, DiskCase{"", ""}, DiskCase{"/dev/", ""}));

TEST(WriteCachePath, IsTheDisksAttributeOrEmpty) {
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    QxCErrorListPool* errors = manager->createErrorList(0, 1, 20, 5, 300);
    const auto path = [errors] {
        return QxCWriteThroughCacheGuard::GetUserStorageWriteCacheSysfsPath(*errors);
    };

    EXPECT_EQ(path(), "") << "not mounted";
    TheScript().mounts = {{"/userstorage1", "/dev/nvme0n1p1", 2}, {"/userstorage1", "/dev/sda1", 2}};
    EXPECT_EQ(path(), "/sys/block/nvme0n1/queue/write_cache") << "the first entry counts";
    TheScript().mounts = {{"/userstorage1", "/dev/", 2}};
    EXPECT_EQ(path(), "") << "no disk name";
    TheScript().mountInfoFails = true;
    EXPECT_EQ(path(), "");
    manager->deleteErrorList(errors);
}

// --- The guard ---

TEST(WriteThroughGuard, SwitchesTheDiskForItsLifetime) {
    Board::ProvideUserStorage();
    TheScript().logLevel = "DEBUG";
    {
        const auto guard = QxCWriteThroughCacheGuard::Create(true);
        EXPECT_TRUE(guard.has_value());
        EXPECT_EQ(CacheMode(), "write through");
        EXPECT_THAT(Recording::Logs(), ElementsAre(SwitchedLine));
    }
    EXPECT_EQ(CacheMode(), "write back");
    EXPECT_THAT(Recording::Logs(), ElementsAre(SwitchedLine, SwitchedBackLine));
    EXPECT_EQ(Recording::LiveLists(), 0);
}

TEST(WriteThroughGuard, SaysWhatItDidOnceItIsDone) {
    Board::ProvideUserStorage();
    TheScript().logLevel = "DEBUG";
    std::vector<std::string> modes;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.starts_with("log ")) {
            modes.push_back(CacheMode());
        }
    };
    { const QxCWriteThroughCacheGuard guard; }
    EXPECT_THAT(modes, ElementsAre("write through", "write back"));
}

TEST(WriteThroughGuard, AsksWithTheMasterListWhereThereIsOne) {
    Board::ProvideUserStorage();
    const Recording::MasterErrorList master;
    Recording::Forget();

    { const QxCWriteThroughCacheGuard guard; }
    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();

    EXPECT_THAT(Recording::Events("createErrorList"), IsEmpty());
    EXPECT_THAT(Recording::Events("deleteErrorList"), IsEmpty());
    EXPECT_EQ(Recording::Events("getBlockDeviceMountInfo").size(), 2U);
}

TEST(WriteThroughGuard, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<QxCWriteThroughCacheGuard>);
    EXPECT_FALSE(std::is_copy_assignable_v<QxCWriteThroughCacheGuard>);
}

TEST(WriteThroughGuard, SaysNothingUnlessDebugIsOn) {
    Board::ProvideUserStorage();
    { const QxCWriteThroughCacheGuard guard; }
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(WriteThroughGuard, TouchesNothingWhenNotWanted) {
    Board::ProvideUserStorage();

    EXPECT_FALSE(QxCWriteThroughCacheGuard::Create(false).has_value());

    EXPECT_THAT(Recording::Events(), IsEmpty());
    EXPECT_EQ(CacheMode(), "write back");
}

TEST(WriteThroughGuard, LeavesTheDiskAloneWhileARealtimeApplicationIsLoaded) {
    Board::ProvideUserStorage();
    Sandbox::WriteFile(Board::WriteCache, "untouched");
    TheScript().realtimeApplication = 1;
    {
        const auto guard = QxCWriteThroughCacheGuard::Create(true);
        EXPECT_TRUE(guard.has_value()) << "there is a guard, and it owes nothing";
    }
    EXPECT_EQ(CacheMode(), "untouched");
    EXPECT_THAT(Recording::Events("get"), ElementsAre("getState(6, 0)"))
        << "the mounts are not even asked for";
}

TEST(WriteThroughGuard, OwesNothingWhenTheDiskIsUnknown) {
    Board::ProvideUserStorage();
    TheScript().mounts.clear();
    { const auto guard = QxCWriteThroughCacheGuard::Create(true); }
    EXPECT_EQ(CacheMode(), "write back");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(WriteThroughGuard, OwesNothingAfterAMove) {
    Board::ProvideUserStorage();
    QxCWriteThroughCacheGuard target = [] {
        QxCWriteThroughCacheGuard source;
        QxCWriteThroughCacheGuard moved(std::move(source));
        return moved;
    }();
    EXPECT_EQ(CacheMode(), "write through") << "the sources' ends changed nothing";
    { const QxCWriteThroughCacheGuard last(std::move(target)); }
    EXPECT_EQ(CacheMode(), "write back");
    Sandbox::WriteFile(Board::WriteCache, "untouched");
    // target ends here, moved from
}

TEST(WriteThroughGuard, OfTwoThatOverlapTheFirstToEndSwitchesBack) {
    Board::ProvideUserStorage();
    auto first = std::make_unique<QxCWriteThroughCacheGuard>();
    const QxCWriteThroughCacheGuard second;

    first.reset();

    EXPECT_EQ(CacheMode(), "write back");
}

TEST(WriteThroughGuard, TriesToSwitchBackAlsoWhenTheSwitchFailed) {
    Board::ProvideUserStorage();
    std::filesystem::remove_all("/sys/block/sda");
    { const auto guard = QxCWriteThroughCacheGuard::Create(true); }
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[WARNING] Quolex Container Utils:Failed to set 'write through' on "
                            "'/sys/block/sda/queue/write_cache'\n",
                            "[WARNING] Quolex Container Utils:Failed to set 'write back' on "
                            "'/sys/block/sda/queue/write_cache'\n"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(Board::WriteCache));
    EXPECT_EQ(Recording::Events("sync").size(), 1U) << "file systems are synced all the same";
}

TEST(WriteCache, AnEmptyPathDoesNothing) {
    QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache("", "write back");
    EXPECT_THAT(Recording::Events(), IsEmpty());
}

TEST(WriteCache, FileSystemsAreSyncedBeforeWriteBackReachesTheAttributeAndOnlyThen) {
    Board::ProvideUserStorage();

    QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache(Board::WriteCache, "write through");
    EXPECT_THAT(Recording::Events("sync"), IsEmpty());
    QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache(Board::WriteCache, "write back");
    // Opening the attribute empties a plain file; what is new is not there yet.
    EXPECT_THAT(Recording::Events("sync"), ElementsAre("sync, the attribute holds ''"));
    EXPECT_EQ(CacheMode(), "write back");
}

TEST(WriteCache, AnErrorThatShowsAtClosingIsNotReported) {
    QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache("/dev/full", "write through");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(WriteCache, ModeIsWrittenWithoutALineFeed) {
    Board::ProvideUserStorage();
    QxCWriteThroughCacheGuard::SetBlockDeviceWriteCache(Board::WriteCache, "write through");
    EXPECT_EQ(CacheMode(), "write through");
}

TEST(ForceRestore, SwitchesBackAlsoWithARealtimeApplicationAndSaysNothing) {
    Board::ProvideUserStorage();
    TheScript().logLevel = "DEBUG";
    TheScript().realtimeApplication = 1;
    Sandbox::WriteFile(Board::WriteCache, "write through");

    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();

    EXPECT_EQ(CacheMode(), "write back");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
    EXPECT_THAT(Recording::Events("getState"), IsEmpty());
    EXPECT_EQ(Recording::LiveLists(), 0);
}

TEST(ForceRestore, DoesNothingWithoutUserStorage) {
    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
    EXPECT_THAT(Recording::Logs(), IsEmpty());
    EXPECT_THAT(Recording::Events("sync"), IsEmpty());
}

TEST(RealtimeApplication, IsLoadedWhenTheBoardSaysAnythingButZero) {
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    QxCErrorListPool* errors = manager->createErrorList(0, 1, 20, 5, 300);
    EXPECT_FALSE(QxCWriteThroughCacheGuard::IsRealtimeApplicationLoaded(*errors));
    TheScript().realtimeApplication = -3;
    EXPECT_TRUE(QxCWriteThroughCacheGuard::IsRealtimeApplicationLoaded(*errors));
    manager->deleteErrorList(errors);
}

}  // namespace
