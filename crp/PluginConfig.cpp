#include "crp/PluginConfig.h"

namespace CRP {

using QxNJson::json;

namespace {

bool hasText(const json& object, const char* key) { return object.contains(key) && object[key].is_string(); }

}  // namespace

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
