#pragma once

#include "QxCRPLoader.h"
#include "QxNJson.h"

#include <cstdint>
#include <optional>
#include <string>

/// The plugin configuration: a JSON object whose "deactivated_plugins" lists what must not be loaded.
namespace CRP {

inline constexpr const char* DeactivatedPluginsKey = "deactivated_plugins";

/// What reading the configuration file came to.
enum class ConfigStatus {
    Read,
    CannotOpen,
    NoJson,  ///< also: something that has no end, such as a FIFO or a device, or more than MaxConfigSize
};

/// Far more than a list of all plugins that a board can carry takes.
inline constexpr std::uintmax_t MaxConfigSize = std::uintmax_t{16} << 20;

/// Reads the configuration file. Neither waits for anybody else nor reads without bounds.
/// @param config  receives the content; invalid unless it was read
ConfigStatus readConfigFile(const std::string& path, QxNJson::json& config);

/// @return whether the configuration has a list of deactivated plugins
bool hasDeactivationList(const QxNJson::json& config);

/// Reads one element of the list.
/// @return nothing when it is malformed: no object, or without a name and a version that are strings
std::optional<QxCRPLoader::DeactivatedPlugin> parseDeactivation(const QxNJson::json& element);

}  // namespace CRP
