#include "crp/PluginConfig.h"

#include <filesystem>
#include <fstream>

namespace CRP {

namespace fs = std::filesystem;
using QxNJson::json;

namespace {

bool hasText(const json& object, const char* key) { return object.contains(key) && object[key].is_string(); }

/// @return whether opening or reading the file could take for ever
bool isEndless(const std::string& path) {
    std::error_code error;
    const fs::file_status file = fs::status(path, error);
    return fs::is_fifo(file) || fs::is_character_file(file) || fs::is_block_file(file) ||
           (fs::is_regular_file(file) && fs::file_size(path, error) > MaxConfigSize);
}

}  // namespace

ConfigStatus readConfigFile(const std::string& path, json& config) {
    config = json::parse(std::string_view());
    if (isEndless(path)) {
        return ConfigStatus::NoJson;
    }
    std::ifstream file(path);
    if (!file) {
        return ConfigStatus::CannotOpen;
    }
    config = json::parse(file);
    return config.is_invalid() ? ConfigStatus::NoJson : ConfigStatus::Read;
}

bool hasDeactivationList(const json& config) {
    return config.contains(DeactivatedPluginsKey) && config[DeactivatedPluginsKey].is_array();
}

std::optional<QxCRPLoader::DeactivatedPlugin> parseDeactivation(const json& element) {
    if (!element.is_object() || !hasText(element, "name") || !hasText(element, "version")) {
        return std::nullopt;
    }
    return QxCRPLoader::DeactivatedPlugin{element["name"].get<std::string>(),
                                          element["version"].get<std::string>()};
}

}  // namespace CRP
