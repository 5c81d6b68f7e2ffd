#pragma once

#include "QxCRPLoader.h"
#include "QxNJson.h"

#include <optional>

/// The plugin configuration: a JSON object whose "deactivated_plugins" lists what must not be loaded.
namespace CRP {

inline constexpr const char* DeactivatedPluginsKey = "deactivated_plugins";

/// @return whether the configuration has a list of deactivated plugins
bool hasDeactivationList(const QxNJson::json& config);

/// Reads one element of the list.
/// @return nothing when it is malformed: no object, or without a name and a version that are strings
std::optional<QxCRPLoader::DeactivatedPlugin> parseDeactivation(const QxNJson::json& element);

}  // namespace CRP
