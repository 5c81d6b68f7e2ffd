#pragma once

#include "CrpPluginHeader.h"
#include "QxCRPLoader.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

/// The rules by which a plugin is picked, passed over and placed. None of them does I/O or logs.
namespace CRP {

/// @param compatibleOs  text of the plugin; empty: any system
/// @param osRelease     kernel release; empty when it is not known
/// @return whether the plugin may run on a system of that release
bool isCompatibleWith(const std::string& compatibleOs, const std::string& osRelease);

/// Told of every record whose name was seen before, together with the best record so far.
using DuplicateObserver =
    std::function<void(const PluginInfo& candidate, const PluginInfo& best, bool isCandidateNewer)>;

/// Finds the newest record of each name; of equal versions the first.
/// @return indices into `plugins`, one per name, in no particular order
std::vector<std::size_t> selectNewest(const std::vector<PluginInfo>& plugins,
                                      const DuplicateObserver& observe);

/// Brings plugins into load order. Equal priorities come out in no particular order.
void sortByPriority(std::vector<PluginInfo>& plugins);

using DeactivationList = std::vector<QxCRPLoader::DeactivatedPlugin>;

/// @return whether the list names exactly this plugin and version
bool isDeactivated(const DeactivationList& list, const PluginInfo& plugin);

enum class LoadDecision { Load, Deactivated, OsIncompatible, UnsupportedType };

/// @return what the loader does with a plugin; of several reasons against it, the first in the order above
LoadDecision decideLoad(const PluginInfo& plugin, const DeactivationList& deactivated);

/// @return where a plugin of that name is mounted: a path that needs no quoting in a shell
std::string mountPointOf(const std::string& name);

}  // namespace CRP
