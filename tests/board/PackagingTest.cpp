#include "BoardTest.h"
#include "QxNJson.h"

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <algorithm>
#include <map>
#include <sstream>

using namespace OnBoard;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

/// What the daemon is installed with.
const std::string Unit = "/opt/qx/lib/systemd/system/qxcontainerd.service";

/// @return the values of a directive, of all its lines
std::vector<std::string> Directive(const std::string& name) {
    std::vector<std::string> values;
    std::istringstream lines(ReadFile(Unit));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + "=")) {
            std::istringstream words(line.substr(name.size() + 1));
            values.insert(values.end(), std::istream_iterator<std::string>(words), {});
        }
    }
    return values;
}

std::string Post(const std::string& endpoint, const std::string& body) {
    return Output(
        "curl -s -m 30 --unix-socket /run/podman/podman.sock -H 'Content-Type: application/json' -d '" +
        body + "' http://d/v5.8.1/libpod/" + endpoint);
}

std::string Log(const std::string& container) { return Output("podman logs " + container + " 2>/dev/null"); }

/// As in capabilities(7).
const std::map<std::string, unsigned> Numbers = {{"CAP_SYS_MODULE", CAP_SYS_MODULE},
                                                 {"CAP_SYS_RAWIO", CAP_SYS_RAWIO},
                                                 {"CAP_SYS_BOOT", CAP_SYS_BOOT},
                                                 {"CAP_SYS_TIME", CAP_SYS_TIME},
                                                 {"CAP_WAKE_ALARM", CAP_WAKE_ALARM},
                                                 {"CAP_SYSLOG", CAP_SYSLOG},
                                                 {"CAP_MAC_ADMIN", CAP_MAC_ADMIN},
                                                 {"CAP_MAC_OVERRIDE", CAP_MAC_OVERRIDE},
                                                 {"CAP_LEASE", CAP_LEASE},
                                                 {"CAP_SYS_PACCT", CAP_SYS_PACCT},
                                                 {"CAP_BLOCK_SUSPEND", CAP_BLOCK_SUSPEND}};

TEST(Packaging, ContainersRunWithTheUnitsCapabilities) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    std::string dropped;
    for (std::string name : Directive("CapabilityBoundingSet")) {
        std::erase(name, '~');
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return tolower(c); });
        ASSERT_TRUE(name.starts_with("cap_")) << name;
        dropped += (dropped.empty() ? "-" : ",-") + name.substr(4);
    }
    for (const char* power : {"-sys_module", "-sys_rawio", "-sys_boot"}) {
        ASSERT_THAT(dropped, HasSubstr(power));
    }
    Shell("setpriv --bounding-set=" + dropped +
          " -- /opt/qx/bin/qxcontainerd --enable --cores 1 >/dev/null 2>&1 & echo $! >/run/daemon.pid");
    ASSERT_TRUE(PodmanAnswers());
    ImportBusybox();

    for (const std::string privileged : {"false", "true"}) {
        const std::string name = "with-" + privileged;
        Post("containers/create",
             R"({"image":"localhost/busybox:1","name":")" + name + R"(","privileged":)" + privileged +
                 R"(,"netns":{"nsmode":"none"},"command":["sh","-c",)" +
                 R"("trap exit TERM; grep CapBnd /proc/self/status; sleep 100 & wait"]})");
        EXPECT_THAT(Post("containers/" + name + "/start", ""), IsEmpty());
        EXPECT_TRUE(Eventually([&] { return !Log(name).empty(); }));
        EXPECT_EQ(Output("podman inspect --format '{{.State.Status}}' " + name + " 2>/dev/null"), "running");
        const auto bounds = std::stoull(Log(name).substr(std::string("CapBnd:").size()), nullptr, 16);
        for (const std::string& capability : Directive("CapabilityBoundingSet")) {
            EXPECT_EQ(bounds >> Numbers.at(capability.substr(capability.starts_with('~') ? 1 : 0)) & 1, 0U)
                << capability;
        }
    }

    Output("kill -TERM $(cat /run/daemon.pid)");
    EXPECT_TRUE(Eventually([] { return Processes("qxcontainerd --enable").empty(); }));
}

/// What systemd-analyze looks at, and the capabilities of capabilities(7).
TEST(Packaging, TheUnitSetsOrExplainsEveryDirectiveThatHardens) {
    const std::string unit = ReadFile(Unit);
    for (const char* directive : {"AmbientCapabilities",
                                  "CapabilityBoundingSet",
                                  "DeviceAllow",
                                  "DevicePolicy",
                                  "DynamicUser",
                                  "IPAddressDeny",
                                  "KeyringMode",
                                  "LimitCORE",
                                  "LockPersonality",
                                  "MemoryDenyWriteExecute",
                                  "NoExecPaths",
                                  "NoNewPrivileges",
                                  "NotifyAccess",
                                  "PrivateDevices",
                                  "PrivateIPC",
                                  "PrivateMounts",
                                  "PrivateNetwork",
                                  "PrivateTmp",
                                  "PrivateUsers",
                                  "ProcSubset",
                                  "ProtectClock",
                                  "ProtectControlGroups",
                                  "ProtectHome",
                                  "ProtectHostname",
                                  "ProtectKernelLogs",
                                  "ProtectKernelModules",
                                  "ProtectKernelTunables",
                                  "ProtectProc",
                                  "ProtectSystem",
                                  "ReadOnlyPaths",
                                  "RemoveIPC",
                                  "RestrictAddressFamilies",
                                  "RestrictFileSystems",
                                  "RestrictNamespaces",
                                  "RestrictNetworkInterfaces",
                                  "RestrictRealtime",
                                  "RestrictSUIDSGID",
                                  "RootDirectory",
                                  "RootImage",
                                  "SecureBits",
                                  "SocketBindDeny",
                                  "SupplementaryGroups",
                                  "SystemCallArchitectures",
                                  "SystemCallFilter",
                                  "UMask",
                                  "User"}) {
        EXPECT_THAT(unit,
                    testing::ContainsRegex("\n(# +([A-Za-z]+ )*)?" + std::string(directive) + "[ =\n]"));
    }
    for (const char* capability : {"AUDIT_CONTROL",   "AUDIT_READ",   "AUDIT_WRITE",
                                   "BLOCK_SUSPEND",   "BPF",          "CHECKPOINT_RESTORE",
                                   "CHOWN",           "DAC_OVERRIDE", "DAC_READ_SEARCH",
                                   "FOWNER",          "FSETID",       "IPC_LOCK",
                                   "IPC_OWNER",       "KILL",         "LEASE",
                                   "LINUX_IMMUTABLE", "MAC_ADMIN",    "MAC_OVERRIDE",
                                   "MKNOD",           "NET_ADMIN",    "NET_BIND_SERVICE",
                                   "NET_BROADCAST",   "NET_RAW",      "PERFMON",
                                   "SETFCAP",         "SETGID",       "SETPCAP",
                                   "SETUID",          "SYS_ADMIN",    "SYS_BOOT",
                                   "SYS_CHROOT",      "SYS_MODULE",   "SYS_NICE",
                                   "SYS_PACCT",       "SYS_PTRACE",   "SYS_RAWIO",
                                   "SYS_RESOURCE",    "SYS_TIME",     "SYS_TTY_CONFIG",
                                   "SYSLOG",          "WAKE_ALARM"}) {
        EXPECT_THAT(unit, testing::ContainsRegex("CAP_" + std::string(capability) + "[ \n]"));
    }
}

TEST(Packaging, TheUnitSaysWhatTheDaemonDoes) {
    EXPECT_THAT(Directive("Type"), testing::ElementsAre("notify"));
    EXPECT_THAT(Directive("WatchdogSec"), SizeIs(1));
    const auto start = Directive("ExecStart");
    ASSERT_THAT(start, Not(IsEmpty()));
    EXPECT_EQ(start[0], "/usr/bin/qxcontainerd");
    EXPECT_THAT(Directive("NoNewPrivileges"), IsEmpty()) << "sudo in containers";
    for (const std::string ownFileSystem :
         {"ProtectSystem", "PrivateTmp", "ProtectKernelModules", "PrivateMounts"}) {
        EXPECT_THAT(Directive(ownFileSystem), IsEmpty()) << "mounts have to reach the whole board";
    }
}

}  // namespace
