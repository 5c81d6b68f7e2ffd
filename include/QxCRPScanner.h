#pragma once

#include "CrpPluginHeader.h"
#include "QxExport.h"
#include "QxNRtosAbstraction.h"

#include <string>
#include <vector>

namespace CRP {

/// Plugins that are delivered with the system.
inline constexpr const char* SYSTEM_PLUGIN_DIR = "/usr/Quolex/container/plugins";

/// Finds plugin files and picks those that may be loaded: compatible with the running system, one per name,
/// in order of their priority.
///
/// Errors: files that are no plugins are passed over; nothing is raised for file-system errors. Thread
/// safety: the queries may be called from any thread, also during a scan (they see the previous result then);
/// scan() itself belongs to one thread at a time. Blocks for file access only.
class QX_EXPORT QxCRPScanner {
public:
    /// @param userPluginDir  directory of the plugins that the user installed
    explicit QxCRPScanner(std::string userPluginDir);
    QxCRPScanner(const QxCRPScanner&) = delete;
    QxCRPScanner& operator=(const QxCRPScanner&) = delete;
    ~QxCRPScanner();

    /// Scans both plugin directories afresh.
    /// @return the plugins to load, in load order
    std::vector<PluginInfo> scan();

    /// Appends every plugin of one directory to `out`, in the directory's own order.
    void scanDirectory(const std::string& dir, std::vector<PluginInfo>& out) const;

    /// Reads the trailer of one file.
    /// @param header  filled on success; undefined otherwise
    /// @return whether the file carries a valid trailer
    bool readHeader(const std::string& path, CrpPluginHeader& header) const;

    /// @return whether a plugin with that text may run on this system: empty, or part of the kernel release
    bool checkOsCompatibility(const std::string& compatibleOs) const;

    /// Keeps the newest of each name; of equal versions the first.
    /// @return one record per name, in no particular order
    std::vector<PluginInfo> deduplicateByName(std::vector<PluginInfo> plugins) const;

    /// @return every plugin file of the last scan, incompatible ones and duplicates included, in discovery
    ///         order
    std::vector<PluginInfo> getAllPlugins() const;

    /// @return whether the last scan found a plugin of exactly this name and version
    bool pluginExists(const std::string& name, const std::string& version) const;

    /// @param fileName  last component of the plugin's path
    /// @param name      receives the plugin's name when found
    /// @param version   receives its version when found
    /// @return whether the last scan found such a file; of several, the first counts
    bool findPluginByFileName(const std::string& fileName, std::string& name, std::string& version) const;

private:
    void _examine(const std::string& path, std::vector<PluginInfo>& out) const;

    std::string _userPluginDir;
    std::string _osRelease;
    std::vector<PluginInfo> _allPlugins;
    std::vector<PluginInfo> _activePlugins;
    mutable QxNRtosAbstraction::QxCMutex _pluginsMutex;
};

}  // namespace CRP
