#include "QxCRPHandler.h"

#include "crp/PluginConfig.h"
#include "crp/PluginHeader.h"
#include "crp/PluginSelection.h"
#include "support/Log.h"
#include "support/OutputFile.h"
#include "support/Text.h"

#include <sys/stat.h>
#include <filesystem>

namespace CRP {

namespace fs = std::filesystem;
using QxNJson::json;

namespace {

constexpr const char* Tag = "Quolex Container Utils:";

/// Result codes of the editing operations.
enum EditResult { Changed = 0, NothingToDo = 1, Rejected = 2, NoSuchPlugin = 3, FileFailed = 4 };

std::string compactText(const json& value) {
    return value.dump(-1, ' ', false, json::Utf8ErrorMode::Replace);
}

bool names(const json& element, const std::string& name, const std::string& version) {
    const auto entry = parseDeactivation(element);
    return entry && entry->name == name && entry->version == version;
}

json describe(const PluginInfo& plugin, const std::string& userDirectory, bool isOff, bool isLoaded) {
    struct stat file {};
    if (stat(plugin.path.c_str(), &file) != 0) {
        file = {};
    }
    json object = json::object();
    object["fileName"] = fs::path(plugin.path).filename().string();
    object["path"] = plugin.path;
    object["directory"] = plugin.path.starts_with(userDirectory) ? "user" : "system";
    object["name"] = textOf(plugin.header.name);
    object["version"] = textOf(plugin.header.version);
    object["compatibleOs"] = textOf(plugin.header.compatibleOs);
    object["osCompatible"] = plugin.osCompatible;
    object["initPriority"] = std::int64_t{plugin.header.initPriority};
    object["pluginType"] = std::int64_t{plugin.header.pluginType};
    object["size"] = std::int64_t{file.st_size};
    object["created"] = std::int64_t{file.st_mtime};
    object["isDeactivated"] = isOff;
    object["isLoaded"] = isLoaded;
    return object;
}

/// @return false when the value has content but is no object, so that an edit would lose that content
bool makeObject(json& config) {
    if (!config.is_object() && config.empty()) {
        config = json::object();
    }
    return config.is_object();
}

}  // namespace

QxCRPHandler::QxCRPHandler(const std::string& pluginDir, const std::string& configFile)
    : _pluginDir(pluginDir),
      _configFile(configFile),
      _loader(std::make_unique<QxCRPLoader>()),
      _scanner(std::make_unique<QxCRPScanner>(pluginDir)) {
    _loader->init(configFile);
}

QxCRPHandler::~QxCRPHandler() = default;

void QxCRPHandler::loadPlugins() {
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Utils: Loading container plugins...");
    _loader->loadPlugins(_scanner->scan());
}

void QxCRPHandler::scanPluginsDir() { _scanner->scan(); }

json QxCRPHandler::listPlugins() const {
    json list = json::array();
    const std::vector<PluginInfo> plugins = _scanner->getAllPlugins();
    const DeactivationList deactivated = _loader->getDeactivatedPlugins();
    for (const PluginInfo& plugin : plugins) {
        list.push_back(describe(plugin, _pluginDir, isDeactivated(deactivated, plugin),
                                _loader->isPluginLoaded(plugin)));
    }
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "%s Discovered %zu CRP plugin(s)", Tag, plugins.size());
    json result = json::object();
    result["plugins"] = std::move(list);
    return result;
}

bool QxCRPHandler::readConfig(json& config) const {
    std::error_code error;
    const fs::file_type type = fs::status(_configFile, error).type();
    if (type == fs::file_type::not_found || type == fs::file_type::none) {
        config = json::object();
        return true;
    }
    const ConfigStatus status = readConfigFile(_configFile, config);
    if (status == ConfigStatus::CannotOpen) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Failed to open config file '%s' for reading", Tag,
                        _configFile.c_str());
        return false;
    }
    if (status == ConfigStatus::NoJson) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Failed to parse config file '%s'", Tag, _configFile.c_str());
        return false;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "%s Parsed config file '%s': %s", Tag, _configFile.c_str(),
                      compactText(config).c_str());
    return true;
}

bool QxCRPHandler::writeConfig(const json& config) const {
    const fs::path directory = fs::path(_configFile).parent_path();
    std::error_code error;
    if (!directory.empty()) {
        fs::create_directories(directory, error);
    }
    if (error) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Failed to create config directory: %s", Tag,
                        error.message().c_str());
        return false;
    }
    // Before the file is emptied: when memory runs out here, the configuration stays as it was.
    const std::string text = config.dump(4, ' ', false, json::Utf8ErrorMode::Replace);
    QxNSupport::OutputFile file(_configFile);
    if (!file) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Failed to open config file '%s' for writing", Tag,
                        _configFile.c_str());
        return false;
    }
    file << text;
    // Without the flush a full drive would only show when the stream closes, which reports to nobody.
    file.flush();
    if (!file) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Error writing config file '%s'", Tag, _configFile.c_str());
        return false;
    }
    return true;
}

std::optional<int> QxCRPHandler::_readForEdit(const char* edit, const std::string& name,
                                              const std::string& version, json& config) const {
    if (name.empty() || version.empty()) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Rejected config %s with empty name or version", Tag, edit);
        return Rejected;
    }
    if (!_scanner->pluginExists(name, version)) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning, "%s Plugin '%s' v%s not found in scanned plugins", Tag,
                        name.c_str(), version.c_str());
        return NoSuchPlugin;
    }
    return readConfig(config) ? std::nullopt : std::optional<int>(FileFailed);
}

bool QxCRPHandler::_writeEdited(const json& config) const {
    if (!writeConfig(config)) {
        return false;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "%s Updated deactivated_plugins list: %s", Tag,
                      compactText(config[DeactivatedPluginsKey]).c_str());
    return true;
}

int QxCRPHandler::addPluginToConfig(const std::string& name, const std::string& version) {
    const std::string trimmedName = QxNSupport::Trimmed(name);
    json config;
    if (const std::optional<int> obstacle = _readForEdit("add", trimmedName, version, config)) {
        return *obstacle;
    }
    if (!makeObject(config)) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "%s Failed to parse config file '%s'", Tag, _configFile.c_str());
        return FileFailed;
    }
    if (!hasDeactivationList(config)) {
        config[DeactivatedPluginsKey] = json::array();
    }
    auto& list = config[DeactivatedPluginsKey];
    for (const auto& element : list) {
        if (names(element, trimmedName, version)) {
            QxCRTE_LOG_Impl(RteLogLevel::Info, "%s Plugin '%s' v%s is already in the deactivation list", Tag,
                            trimmedName.c_str(), version.c_str());
            return NothingToDo;
        }
    }
    json entry = json::object();
    entry["name"] = trimmedName;
    entry["version"] = version;
    list.push_back(std::move(entry));
    if (!_writeEdited(config)) {
        return FileFailed;
    }
    QxCRTE_LOG_Impl(RteLogLevel::Info, "%s Added plugin '%s' v%s to deactivation config", Tag,
                    trimmedName.c_str(), version.c_str());
    return Changed;
}

int QxCRPHandler::removePluginFromConfig(const std::string& name, const std::string& version) {
    const std::string trimmedName = QxNSupport::Trimmed(name);
    json config;
    if (const std::optional<int> obstacle = _readForEdit("remove", trimmedName, version, config)) {
        return *obstacle;
    }
    if (!hasDeactivationList(config)) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                          "%s No deactivated_plugins list in config.json - nothing to remove", Tag);
        return NothingToDo;
    }
    auto& list = config[DeactivatedPluginsKey];
    json kept = json::array();
    for (const auto& element : list) {
        if (!names(element, trimmedName, version)) {
            kept.push_back(element);
        }
    }
    if (kept.size() == list.size()) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug, "%s Plugin '%s' v%s was not in the deactivation list", Tag,
                          trimmedName.c_str(), version.c_str());
        return NothingToDo;
    }
    list = std::move(kept);
    if (!_writeEdited(config)) {
        return FileFailed;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "%s Removed plugin '%s' v%s from deactivation config", Tag,
                      trimmedName.c_str(), version.c_str());
    return Changed;
}

int QxCRPHandler::removePluginFromConfigByFileName(const std::string& fileName) {
    std::string name;
    std::string version;
    if (_scanner->findPluginByFileName(fileName, name, version)) {
        return removePluginFromConfig(name, version);
    }
    QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                      "%s Plugin file '%s' not found in scanner - nothing to remove from config", Tag,
                      fileName.c_str());
    return NothingToDo;
}

}  // namespace CRP
