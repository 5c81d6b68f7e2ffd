#include "QxCRPScanner.h"

#include "crp/PluginFile.h"
#include "crp/PluginHeader.h"
#include "crp/PluginSelection.h"
#include "support/Log.h"

#include <sys/utsname.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>

namespace CRP {

namespace {

class MutexLock {
public:
    explicit MutexLock(QxNRtosAbstraction::QxCMutex& mutex) : _mutex(mutex) { _mutex.lock(WithoutLimit); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() { _mutex.unlock(); }

private:
    static constexpr int WithoutLimit = -1;
    QxNRtosAbstraction::QxCMutex& _mutex;
};

/// @return the release of the running kernel; empty, with a line in the log, when it is not to be had
std::string readOsRelease() {
    utsname system{};
    if (uname(&system) != 0) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Warning,
            "Quolex Container Runtime: uname() failed: %s. OS compatibility checks will be skipped",
            strerror(errno));
        return {};
    }
    return system.release;
}

void logDuplicate(const PluginInfo& candidate, const PluginInfo& best, bool isCandidateNewer) {
    const std::string name = textOf(candidate.header.name);
    const std::string candidateVersion = textOf(candidate.header.version);
    const std::string bestVersion = textOf(best.header.version);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Runtime: Comparing duplicate '%s': candidate v%s vs current best v%s",
                      name.c_str(), candidateVersion.c_str(), bestVersion.c_str());
    if (isCandidateNewer) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning,
                        "Quolex Container Runtime: Ignoring duplicate plugin '%s' v%s (superseded by v%s)",
                        name.c_str(), bestVersion.c_str(), candidateVersion.c_str());
    } else {
        QxCRTE_LOG_Impl(RteLogLevel::Warning,
                        "Quolex Container Runtime: Ignoring duplicate plugin '%s' v%s (keeping v%s)",
                        name.c_str(), candidateVersion.c_str(), bestVersion.c_str());
    }
}

}  // namespace

QxCRPScanner::QxCRPScanner(std::string userPluginDir)
    : _userPluginDir(std::move(userPluginDir)), _osRelease(readOsRelease()), _pluginsMutex(nullptr) {
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Running OS release : %s",
                    _osRelease.c_str());
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Plugin directory   : %s",
                    _userPluginDir.c_str());
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: System plugin dir  : %s",
                    SYSTEM_PLUGIN_DIR);
}

QxCRPScanner::~QxCRPScanner() = default;

std::vector<PluginInfo> QxCRPScanner::scan() {
    _activePlugins.clear();
    std::vector<PluginInfo> plugins;
    scanDirectory(_userPluginDir, plugins);
    scanDirectory(SYSTEM_PLUGIN_DIR, plugins);
    QX_LOG_IF_ENABLED(
        RteLogLevel::DebugVerbose,
        "Quolex Container Runtime: Scan discovered %zu plugin file(s) in total (before de-duplication)",
        plugins.size());
    {
        const MutexLock lock(_pluginsMutex);
        _allPlugins = plugins;
    }
    // Before the duplicates are resolved, so that a newer plugin that cannot run hides none that can.
    std::erase_if(plugins, [](const PluginInfo& plugin) { return !plugin.osCompatible; });
    plugins = deduplicateByName(std::move(plugins));
    sortByPriority(plugins);
    _activePlugins = plugins;
    return plugins;
}

void QxCRPScanner::scanDirectory(const std::string& dir, std::vector<PluginInfo>& out) const {
    // One path for all entries, so that the files that are no plugins cost no memory, however many there are.
    std::string path = dir + "/";
    path.reserve(path.size() + NAME_MAX);
    const std::size_t directoryLength = path.size();
    const bool isOpen = visitDirectory(dir, [&](std::string_view entry) {
        if (!isHidden(entry)) {
            path.resize(directoryLength);
            path += entry;
            _examine(path, out);
        }
    });
    const int error = errno;  // before the log asks for its level
    if (!isOpen) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                          "Quolex Container Runtime: Cannot open plugin directory '%s': %s. Skipping",
                          dir.c_str(), strerror(error));
    }
}

void QxCRPScanner::_examine(const std::string& path, std::vector<PluginInfo>& out) const {
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Runtime: Examining directory entry '%s'",
                      path.c_str());
    CrpPluginHeader header{};
    if (!isRegularFile(path) || !readHeader(path, header)) {
        return;
    }
    const std::string name = textOf(header.name);
    const std::string version = textOf(header.version);
    const std::string compatibleOs = textOf(header.compatibleOs);
    const bool isCompatible = checkOsCompatibility(compatibleOs);
    if (!isCompatible) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Warning,
            "Quolex Container Runtime: Plugin '%s' v%s requires OS release containing '%s' but running '%s'",
            name.c_str(), version.c_str(), compatibleOs.c_str(), _osRelease.c_str());
    }
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Found  : %s v%s | priority=%u | os_ok=%s",
                    name.c_str(), version.c_str(), header.initPriority, isCompatible ? "yes" : "no");
    out.push_back({header, path, isCompatible});
}

bool QxCRPScanner::readHeader(const std::string& path, CrpPluginHeader& header) const {
    const PluginFileStatus status = readPluginFile(path, header);
    if (status == PluginFileStatus::IncompatibleHeader) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning,
                        "Quolex Container Runtime: '%s' has header_size=%u (expected %u) – skipping "
                        "incompatible header version",
                        path.c_str(), header.header_size, CRP_HEADER_SIZE);
    }
    if (status != PluginFileStatus::Plugin) {
        return false;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Runtime: Read header from '%s': magic=0x%x, header_size=%u",
                      path.c_str(), header.magic, header.header_size);
    return true;
}

bool QxCRPScanner::checkOsCompatibility(const std::string& compatibleOs) const {
    return isCompatibleWith(compatibleOs, _osRelease);
}

std::vector<PluginInfo> QxCRPScanner::deduplicateByName(std::vector<PluginInfo> plugins) const {
    const std::vector<std::size_t> selected = selectNewest(plugins, logDuplicate);
    std::vector<PluginInfo> newest;
    newest.reserve(selected.size());
    for (const std::size_t index : selected) {
        newest.push_back(std::move(plugins[index]));
    }
    return newest;
}

std::vector<PluginInfo> QxCRPScanner::getAllPlugins() const {
    const MutexLock lock(_pluginsMutex);
    return _allPlugins;
}

bool QxCRPScanner::pluginExists(const std::string& name, const std::string& version) const {
    const MutexLock lock(_pluginsMutex);
    return std::any_of(_allPlugins.begin(), _allPlugins.end(), [&](const PluginInfo& plugin) {
        return textOf(plugin.header.name) == name && textOf(plugin.header.version) == version;
    });
}

bool QxCRPScanner::findPluginByFileName(const std::string& fileName, std::string& name,
                                        std::string& version) const {
    namespace fs = std::filesystem;
    const MutexLock lock(_pluginsMutex);
    const auto plugin =
        std::find_if(_allPlugins.begin(), _allPlugins.end(), [&](const PluginInfo& candidate) {
            return fs::path(candidate.path).filename() == fs::path(fileName);
        });
    if (plugin == _allPlugins.end()) {
        return false;
    }
    name = textOf(plugin->header.name);
    version = textOf(plugin->header.version);
    return true;
}

}  // namespace CRP
