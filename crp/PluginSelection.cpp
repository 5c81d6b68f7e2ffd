#include "crp/PluginSelection.h"

#include "crp/PluginHeader.h"
#include "crp/PluginVersion.h"

#include <algorithm>
#include <unordered_map>

namespace CRP {

bool isCompatibleWith(const std::string& compatibleOs, const std::string& osRelease) {
    return compatibleOs.empty() || osRelease.find(compatibleOs) != std::string::npos;
}

std::vector<std::size_t> selectNewest(const std::vector<PluginInfo>& plugins,
                                      const DuplicateObserver& observe) {
    std::unordered_map<std::string, std::size_t> bestByName;
    for (std::size_t index = 0; index < plugins.size(); ++index) {
        const PluginInfo& candidate = plugins[index];
        const auto [entry, isFirst] = bestByName.try_emplace(textOf(candidate.header.name), index);
        if (isFirst) {
            continue;
        }
        const PluginInfo& best = plugins[entry->second];
        const bool isNewer =
            parseVersion(textOf(candidate.header.version)) > parseVersion(textOf(best.header.version));
        observe(candidate, best, isNewer);
        if (isNewer) {
            entry->second = index;
        }
    }
    std::vector<std::size_t> selected;
    selected.reserve(bestByName.size());
    for (const auto& [name, index] : bestByName) {
        selected.push_back(index);
    }
    return selected;
}

void sortByPriority(std::vector<PluginInfo>& plugins) {
    std::sort(plugins.begin(), plugins.end(), [](const PluginInfo& left, const PluginInfo& right) {
        return left.header.initPriority < right.header.initPriority;
    });
}

bool isDeactivated(const DeactivationList& list, const PluginInfo& plugin) {
    const std::string name = textOf(plugin.header.name);
    const std::string version = textOf(plugin.header.version);
    return std::any_of(list.begin(), list.end(), [&](const QxCRPLoader::DeactivatedPlugin& entry) {
        return entry.name == name && entry.version == version;
    });
}

LoadDecision decideLoad(const PluginInfo& plugin, const DeactivationList& deactivated) {
    if (isDeactivated(deactivated, plugin)) {
        return LoadDecision::Deactivated;
    }
    if (!plugin.osCompatible) {
        return LoadDecision::OsIncompatible;
    }
    return plugin.header.pluginType == CRP_PLUGIN_TYPE_SQUASHFS ? LoadDecision::Load
                                                                : LoadDecision::UnsupportedType;
}

std::string mountPointOf(const std::string& name) {
    const auto isKept = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '_';
    };
    std::string cleaned = name;
    std::replace_if(cleaned.begin(), cleaned.end(), std::not_fn(isKept), '_');
    return "/mnt/crp_" + cleaned;
}

}  // namespace CRP
