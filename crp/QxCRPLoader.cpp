#include "QxCRPLoader.h"

#include "crp/InitCommand.h"
#include "crp/LoopMount.h"
#include "crp/PluginConfig.h"
#include "crp/PluginHeader.h"
#include "crp/PluginSelection.h"
#include "support/ChildProcess.h"
#include "support/Log.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace CRP {

bool QxCRPLoader::init(const std::string& configPath) {
    QxNJson::json config;
    const ConfigStatus status = readConfigFile(configPath, config);
    if (status == ConfigStatus::CannotOpen) {
        return true;
    }
    if (status == ConfigStatus::NoJson) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Runtime: Failed to parse config file '%s'",
                        configPath.c_str());
        return false;
    }
    if (!hasDeactivationList(config)) {
        QxCRTE_LOG_Impl(RteLogLevel::Info,
                        "Quolex Container Runtime: No 'deactivated_plugins' array found in '%s'",
                        configPath.c_str());
        return true;
    }
    for (const auto& element : config[DeactivatedPluginsKey]) {
        const std::optional<DeactivatedPlugin> plugin = parseDeactivation(element);
        if (!plugin) {
            QxCRTE_LOG_Impl(RteLogLevel::Warning,
                            "Quolex Container Runtime: Skipping malformed entry in 'deactivated_plugins'");
            continue;
        }
        QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Plugin marked as deactivated: '%s' v%s",
                        plugin->name.c_str(), plugin->version.c_str());
        _deactivatedPlugins.push_back(*plugin);
    }
    return true;
}

void QxCRPLoader::loadPlugins(const std::vector<PluginInfo>& plugins) {
    for (const PluginInfo& plugin : plugins) {
        QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                          "Quolex Container Runtime: Evaluating plugin '%s' v%s (priority=%u, type=%u, "
                          "os_compatible=%s)",
                          textOf(plugin.header.name).c_str(), textOf(plugin.header.version).c_str(),
                          plugin.header.initPriority, plugin.header.pluginType,
                          plugin.osCompatible ? "yes" : "no");
        if (_isWanted(plugin)) {
            _load(plugin);
        }
    }
}

bool QxCRPLoader::_isWanted(const PluginInfo& plugin) const {
    const std::string name = textOf(plugin.header.name);
    const std::string version = textOf(plugin.header.version);
    switch (decideLoad(plugin, _deactivatedPlugins)) {
        case LoadDecision::Deactivated:
            QxCRTE_LOG_Impl(RteLogLevel::Info,
                            "Quolex Container Runtime: Skipping deactivated plugin: '%s' v%s", name.c_str(),
                            version.c_str());
            return false;
        case LoadDecision::OsIncompatible:
            QxCRTE_LOG_Impl(RteLogLevel::Warning,
                            "Quolex Container Runtime: Skipping OS-incompatible plugin: %s v%s", name.c_str(),
                            version.c_str());
            return false;
        case LoadDecision::UnsupportedType:
            QxCRTE_LOG_Impl(
                RteLogLevel::Warning,
                "Quolex Container Runtime: Skipping unsupported plugin type %u for plugin '%s' v%s",
                plugin.header.pluginType, name.c_str(), version.c_str());
            return false;
        case LoadDecision::Load:
            break;
    }
    return true;
}

void QxCRPLoader::_load(const PluginInfo& plugin) {
    const std::string name = textOf(plugin.header.name);
    const std::string mountPoint = getMountPoint(name);
    QxCRTE_LOG_Impl(RteLogLevel::InfoNotify, "Quolex Container Runtime: Loading plugin '%s' v%s",
                    name.c_str(), textOf(plugin.header.version).c_str());
    if (!mountPlugin(plugin, mountPoint)) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Runtime: Mount failed for '%s'. Skipping plugin.", name.c_str());
        return;
    }
    if (!execInitCommand(plugin, mountPoint)) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning, "Quolex Container Runtime: Init command failed for '%s'",
                        name.c_str());
    }
    if (!isPluginLoaded(plugin)) {
        _loadedPlugins.push_back(plugin);
    }
}

bool QxCRPLoader::isPluginDeactivated(const PluginInfo& info) const {
    return isDeactivated(_deactivatedPlugins, info);
}

bool QxCRPLoader::isPluginLoaded(const PluginInfo& info) const {
    return std::any_of(_loadedPlugins.begin(), _loadedPlugins.end(), [&](const PluginInfo& loaded) {
        return textOf(loaded.header.name) == textOf(info.header.name) &&
               textOf(loaded.header.version) == textOf(info.header.version) &&
               loaded.osCompatible == info.osCompatible;
    });
}

std::string QxCRPLoader::getMountPoint(const std::string& name) { return mountPointOf(name); }

bool QxCRPLoader::mountPlugin(const PluginInfo& info, const std::string& mountPoint) const {
    if (mkdir(mountPoint.c_str(), 0755) != 0 && errno != EEXIST) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Runtime: mkdir('%s'): %s", mountPoint.c_str(),
                        strerror(errno));
        return false;
    }
    const std::optional<std::string> device = LoopMount::bind(info.path, info.header.imageSize);
    if (!device || !LoopMount::mountDevice(*device, mountPoint)) {
        return false;
    }
    QX_LOG_IF_ENABLED(
        RteLogLevel::DebugVerbose,
        "Quolex Container Runtime: Loop device config for '%s': dev=%s, sizelimit=%llu, flags=0x%x",
        info.path.c_str(), device->c_str(), static_cast<unsigned long long>(info.header.imageSize),
        LoopMount::DeviceFlags);
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Mounted '%s' via %s at '%s'",
                    info.path.c_str(), device->c_str(), mountPoint.c_str());
    return true;
}

bool QxCRPLoader::execInitCommand(const PluginInfo& info, const std::string& mountPoint) const {
    const std::string name = textOf(info.header.name);
    const std::string initCommand = textOf(info.header.initCommand);
    if (initCommand.empty()) {
        QxCRTE_LOG_Impl(RteLogLevel::Info,
                        "Quolex Container Runtime: Plugin '%s' has no init command. Nothing to run",
                        name.c_str());
        return true;
    }
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Runtime: Initializing plugin '%s' version '%s'",
                    name.c_str(), textOf(info.header.version).c_str());
    const std::string command = initCommandLine(mountPoint, initCommand);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Runtime: Executing init command for '%s': %s", name.c_str(),
                      command.c_str());

    const QxNSupport::SpawnResult shell = QxNSupport::Spawn("/bin/sh", {"sh", "-c", command});
    if (shell.error != 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Runtime: Initializing plugin failed: posix_spawn('/bin/sh'): %s",
                        strerror(errno));
        return false;
    }
    QxNSupport::WaitStatus wait{0};
    if (waitpid(shell.pid, &wait.status, 0) < 0) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Runtime: Initializing plugin failed: waitpid() failed: %s",
                        strerror(errno));
        return false;
    }
    const int exitCode = wait.WasKilled() ? -1 : wait.ExitCode();
    if (exitCode != 0) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Error,
            "Quolex Container Runtime: Initializing plugin failed: init command exited with code %d",
            exitCode);
    }
    return exitCode == 0;
}

}  // namespace CRP
