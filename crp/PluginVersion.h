#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

namespace CRP {

/// A plugin version as it is compared: by major, then minor, then patch, each as a signed number.
struct PluginVersion {
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::int32_t patch = 0;

    // NOLINTNEXTLINE(modernize-use-nullptr): there is no null pointer in it
    friend auto operator<=>(const PluginVersion&, const PluginVersion&) = default;
};

/// Reads a version text as sscanf reads it with "%d.%d.%d": each number may have white space and a sign
/// before it; what is missing or no number is 0 together with everything behind it. A number beyond 32 bits,
/// which sscanf leaves undefined, counts as the nearest one that fits.
PluginVersion parseVersion(std::string_view text);

/// @return whether there is a number for parseVersion() to begin with
bool beginsWithNumber(std::string_view version);

}  // namespace CRP
