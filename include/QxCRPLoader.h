#pragma once

#include "CrpPluginHeader.h"
#include "QxExport.h"

#include <string>
#include <vector>

namespace CRP {

/// Mounts plugins through loop devices and runs their init commands.
///
/// Thread safety: none of its own. loadPlugins() blocks until the last init command has ended, without a time
/// limit. Mounts and loop devices outlive the loader.
class QX_EXPORT QxCRPLoader {
public:
    /// One entry of the user's deactivation list.
    struct DeactivatedPlugin {
        std::string name;
        std::string version;
    };

    /// Reads the deactivation list; entries are added to those that are there.
    /// @param configPath  JSON file; a missing one is an empty list
    /// @return false when the file is not JSON, which counts also for one that is not regular or larger than
    ///         16 MiB
    bool init(const std::string& configPath);

    /// Loads the plugins in the given order; one that cannot be loaded is logged and passed over. Plugins
    /// that are loaded already are mounted and initialised once more.
    void loadPlugins(const std::vector<PluginInfo>& plugins);

    /// @return whether the user switched this name and version off
    bool isPluginDeactivated(const PluginInfo& info) const;

    /// @return whether this loader mounted a plugin of this name, version and compatibility
    bool isPluginLoaded(const PluginInfo& info) const;

    /// @return where a plugin of that name is mounted
    static std::string getMountPoint(const std::string& name);

    /// Mounts the plugin's image read-only through a free loop device (loop(4)).
    /// @return false, with the cause in the log, when a step failed; the loop device is free again then
    bool mountPlugin(const PluginInfo& info, const std::string& mountPoint) const;

    /// Runs the plugin's init command in its mount point and waits for it.
    /// @return whether it ended with status 0, or there is none
    bool execInitCommand(const PluginInfo& info, const std::string& mountPoint) const;

    /// @return the deactivation list as it was read
    const std::vector<DeactivatedPlugin>& getDeactivatedPlugins() const { return _deactivatedPlugins; }

private:
    bool _isWanted(const PluginInfo& plugin) const;
    void _load(const PluginInfo& plugin);

    std::vector<DeactivatedPlugin> _deactivatedPlugins;
    std::vector<PluginInfo> _loadedPlugins;
};

}  // namespace CRP
