#include "QxLinuxBaseUtils.h"

#include "CoreList.h"
#include "CpuSetHierarchy.h"
#include "CpuSetTree.h"
#include "FileAccess.h"
#include "PlatformMessages.h"
#include "TextFormat.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

namespace {

using namespace QxNLinuxPlatform;

// The group of a version 2 set that holds the processes: a group with child groups that have controllers of
// their own must not hold any itself.
constexpr const char* ProcessGroup = "/host";

bool fail(const std::string& what) {
    report(QxNSeverity::Error, MessageNumber::CpuSetFailed, what);
    return false;
}

/// A set in the hierarchy that the system has.
struct CpuSet {
    CpuSetHierarchy::Version version;
    std::string parent;
    std::string directory;
};

std::optional<CpuSet> locate(const char* name) {
    const std::string text = name != nullptr ? name : "";
    if (!isCpuSetName(text)) {
        fail("'" + text + "' is no name of a CPU set");
        return std::nullopt;
    }
    const std::optional<std::vector<MountEntry>> table = readMountTable();
    if (!table) {
        fail("Cannot read the mount table to find the CPU sets");
        return std::nullopt;
    }
    const auto hierarchy =
        findCpuSetHierarchy(*table, [](const std::string& path) { return readFile(path).text; });
    if (!hierarchy) {
        fail("No mounted control group hierarchy has the cpuset controller");
        return std::nullopt;
    }
    return CpuSet{hierarchy->version, hierarchy->directory, hierarchy->directory + '/' + text};
}

bool write(const std::string& path, const std::string& text) {
    const int error = writeControlFile(path, text + '\n');
    return error == 0 || fail("Cannot write '" + text + "' to '" + path + "': " + errorText(error));
}

bool makeGroup(const std::string& directory) {
    return ::mkdir(directory.c_str(), 0755) == 0 || errno == EEXIST ||
           fail("Cannot create '" + directory + "': " + errorText(errno));
}

/// A new set of version 1 has no memory nodes, and takes no thread before it has some.
bool inheritMemoryNodes(const CpuSet& set) {
    const std::string file = "/cpuset.mems";
    const FileContent own = readFile(set.directory + file);
    if (own.error != 0) {
        return fail("Cannot read '" + set.directory + file + "': " + errorText(own.error));
    }
    if (own.text.find_first_not_of(" \n") != std::string::npos) {
        return true;
    }
    FileContent inherited = readFile(set.parent + file);
    if (inherited.error != 0) {
        return fail("Cannot read '" + set.parent + file + "': " + errorText(inherited.error));
    }
    inherited.text.erase(inherited.text.find_last_not_of('\n') + 1);
    return write(set.directory + file, inherited.text);
}

bool writeCores(const CpuSet& set, const std::string& cores) {
    if (set.version == CpuSetHierarchy::Version::V2) {
        return write(set.directory + "/cpuset.cpus", cores);
    }
    const int error = redefineCores(set.directory, cores);
    return error == 0 || fail("Cannot give the cores '" + cores + "' to '" + set.directory +
                              "/cpuset.cpus': " + errorText(error));
}

bool create(const CpuSet& set, const QxTBitmap& mask) {
    const bool isV2 = set.version == CpuSetHierarchy::Version::V2;
    return (!isV2 || write(set.parent + "/cgroup.subtree_control", "+cpuset")) && makeGroup(set.directory) &&
           (isV2 || inheritMemoryNodes(set)) && writeCores(set, formatCores(mask));
}

bool attach(const CpuSet& set, int thread) {
    const std::string id = std::to_string(thread == 0 ? ::gettid() : thread);
    if (set.version == CpuSetHierarchy::Version::V1) {
        return write(set.directory + "/tasks", id);
    }
    const std::string group = set.directory + ProcessGroup;
    if (!makeGroup(group) || !write(group + "/cgroup.procs", id)) {
        return false;
    }
    report(QxNSeverity::Warning, MessageNumber::CpuSetProcessMoved,
           "The whole process of thread " + id + " was moved into '" + group +
               "': this system cannot move a single thread");
    return true;
}

int status(bool succeeded) { return succeeded ? 0 : -1; }

}  // namespace

int QxLinuxBaseUtils_CpuSetCreate(const char* name, const QxTBitmap* mask) {
    if (mask == nullptr) {
        return status(fail("Cannot create a CPU set without a mask"));
    }
    const std::optional<CpuSet> set = locate(name);
    return status(set && create(*set, *mask));
}

int QxLinuxBaseUtils_CpuSetLoadBalance(const char* name, int on) {
    const std::optional<CpuSet> set = locate(name);
    if (!set) {
        return status(false);
    }
    if (set->version == CpuSetHierarchy::Version::V1) {
        return status(write(set->directory + "/cpuset.sched_load_balance", on != 0 ? "1" : "0"));
    }
    return status(write(set->directory + "/cpuset.cpus.partition", on != 0 ? "member" : "isolated"));
}

int QxLinuxBaseUtils_CpuSetAttach(const char* name, int thread) {
    if (thread < 0) {
        return status(fail("There is no thread " + std::to_string(thread)));
    }
    const std::optional<CpuSet> set = locate(name);
    return status(set && attach(*set, thread));
}
