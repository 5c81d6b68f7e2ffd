#pragma once

#include "QxCRPLoader.h"
#include "QxCRPScanner.h"
#include "QxExport.h"
#include "QxNJson.h"

#include <memory>
#include <optional>
#include <string>

namespace CRP {

/// Loads plugins at service start, lists them and edits the list of those that the user switched off.
///
/// Result codes of the editing operations: 0 the file was changed, 1 nothing to do, 2 empty name or version,
/// 3 no such plugin in the last scan, 4 the file could not be read, parsed or written, or, when adding, holds
/// something else than an object, which is not overwritten. A file that is not regular or larger than 16 MiB
/// counts as one that cannot be parsed. Edits take effect when the list is read again, at the next start.
/// Thread safety: none of its own; callers serialise. Blocks for file access; loadPlugins() for the init commands.
class QX_EXPORT QxCRPHandler {
public:
    /// @param pluginDir   directory of the plugins that the user installed
    /// @param configFile  JSON file with the deactivation list; read now
    QxCRPHandler(const std::string& pluginDir, const std::string& configFile);
    QxCRPHandler(const QxCRPHandler&) = delete;
    QxCRPHandler& operator=(const QxCRPHandler&) = delete;
    ~QxCRPHandler();

    /// Scans and loads.
    void loadPlugins();

    /// Scans only, so that listPlugins() and the edits see the present files.
    void scanPluginsDir();

    /// @return an object whose "plugins" is an array with one object for every plugin file of the last scan
    QxNJson::json listPlugins() const;

    /// @param config  receives the file's content; an empty object when there is no file
    /// @return false when the file cannot be read or parsed
    bool readConfig(QxNJson::json& config) const;

    /// Replaces the file, in place.
    /// @return whether it was written
    bool writeConfig(const QxNJson::json& config) const;

    /// Switches a plugin off.
    /// @param name     plugin name; blanks around it are ignored
    /// @param version  version text, compared as it stands
    int addPluginToConfig(const std::string& name, const std::string& version);

    /// Switches a plugin on again; arguments as for addPluginToConfig.
    int removePluginFromConfig(const std::string& name, const std::string& version);

    /// Switches on again the plugin that lies in the file of that name; 1 when no such file was found.
    int removePluginFromConfigByFileName(const std::string& fileName);

private:
    /// The steps that both edits begin with.
    /// @param edit  what is to be done, as the log names it
    /// @return the result code that ends the edit; nothing when it can go on with `config`
    std::optional<int> _readForEdit(const char* edit, const std::string& name, const std::string& version,
                                    QxNJson::json& config) const;
    bool _writeEdited(const QxNJson::json& config) const;

    std::string _pluginDir;
    std::string _configFile;
    std::unique_ptr<QxCRPLoader> _loader;
    std::unique_ptr<QxCRPScanner> _scanner;
};

}  // namespace CRP
