#include "BoardView.h"

#include "TrailerText.h"
#include "crp/PluginFile.h"
#include "crp/PluginHeader.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

namespace BoardView {

namespace fs = std::filesystem;

namespace {

// The board keeps its plugin configuration among the plugins.
constexpr const char* ConfigFileName = "config.json";

std::string Label(const CRP::PluginInfo& plugin) {
    return Quoted(CRP::textOf(plugin.header.name)) + " version " + Quoted(CRP::textOf(plugin.header.version));
}

void Fail(Finding& finding, const char* what) {
    finding.isFailure = true;
    finding.reason = std::string(what) + ": " + strerror(errno);
}

void ReadInto(Finding& finding) {
    CrpPluginHeader& header = finding.plugin.header;
    switch (CRP::readPluginFile(finding.plugin.path, header, &finding.fileSize)) {
        case CRP::PluginFileStatus::Plugin:
            finding.isPlugin = true;
            break;
        case CRP::PluginFileStatus::CannotOpen:
            Fail(finding, "cannot be opened");
            break;
        case CRP::PluginFileStatus::CannotRead:
            Fail(finding, "cannot be read");
            break;
        case CRP::PluginFileStatus::TooShort:
            finding.reason = "no plugin: shorter than the 2048 bytes of a trailer";
            break;
        case CRP::PluginFileStatus::WrongMagic:
            finding.reason = "no plugin: its last 2048 bytes do not begin with the magic number";
            break;
        case CRP::PluginFileStatus::IncompatibleHeader:
            finding.reason = "incompatible header version: its trailer has " +
                             std::to_string(header.header_size) + " bytes instead of 2048";
            break;
    }
}

/// Gives the loaded plugins their numbers, and says where they get in each other's way.
void NumberInOrder(const std::vector<CRP::PluginInfo>& loaded,
                   const std::map<std::string, Finding*>& byPath) {
    std::map<std::string, std::string> pathByMountPoint;
    std::map<std::uint32_t, std::size_t> countByPriority;
    for (const CRP::PluginInfo& plugin : loaded) {
        ++countByPriority[plugin.header.initPriority];
    }
    std::size_t order = 0;
    for (const CRP::PluginInfo& plugin : loaded) {
        Finding& finding = *byPath.at(plugin.path);
        finding.order = ++order;
        if (countByPriority[plugin.header.initPriority] > 1) {
            finding.reason = "others have the same priority; the order among them is not defined";
        }
        const std::string mountPoint = CRP::mountPointOf(CRP::textOf(plugin.header.name));
        const auto [other, isFirst] = pathByMountPoint.try_emplace(mountPoint, plugin.path);
        if (!isFirst) {
            finding.problems.push_back("is mounted at " + mountPoint + " over " + Quoted(other->second) +
                                       "; give one of them another name");
        }
    }
}

/// Decides about the plugins that are the newest of their names.
void DecideAboutNewest(const std::vector<Finding*>& newest, const CRP::DeactivationList& deactivated) {
    std::map<std::string, Finding*> loadedByPath;
    std::vector<CRP::PluginInfo> loaded;
    for (Finding* finding : newest) {
        switch (CRP::decideLoad(finding->plugin, deactivated)) {
            case CRP::LoadDecision::Load:
                finding->verdict = Verdict::Load;
                loadedByPath[finding->plugin.path] = finding;
                loaded.push_back(finding->plugin);
                break;
            case CRP::LoadDecision::Deactivated:
                finding->verdict = Verdict::Deactivated;
                finding->reason = "the configuration deactivates " + Label(finding->plugin);
                break;
            case CRP::LoadDecision::OsIncompatible:
                finding->verdict = Verdict::Incompatible;
                break;
            case CRP::LoadDecision::UnsupportedType:
                finding->verdict = Verdict::UnsupportedType;
                finding->reason = "type " + std::to_string(finding->plugin.header.pluginType) +
                                  " is not supported, only type 1";
                break;
        }
    }
    CRP::sortByPriority(loaded);
    NumberInOrder(loaded, loadedByPath);
}

}  // namespace

const char* TextOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Load:
            return "load";
        case Verdict::Skipped:
            return "skipped";
        case Verdict::Superseded:
            return "superseded";
        case Verdict::Incompatible:
            return "incompatible";
        case Verdict::Deactivated:
            return "deactivated";
        case Verdict::UnsupportedType:
            return "unsupported type";
    }
    return "";
}

Finding Examine(const std::string& path, const std::string& osRelease) {
    Finding finding;
    finding.plugin.path = path;
    const std::string name = fs::path(path).filename().string();
    finding.isExpected = CRP::isHidden(name) || name == ConfigFileName;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        Fail(finding, "cannot be found");
        return finding;
    }
    finding.fileSize = static_cast<std::uint64_t>(status.st_size);
    if (CRP::isHidden(name)) {
        finding.reason = "hidden: boards never look at names that begin with a dot";
    } else if (!CRP::isRegularFile(path)) {
        finding.reason = "no regular file";
    } else {
        ReadInto(finding);
    }
    if (finding.isPlugin) {
        const std::string compatibleOs = CRP::textOf(finding.plugin.header.compatibleOs);
        finding.plugin.osCompatible = CRP::isCompatibleWith(compatibleOs, osRelease);
    }
    return finding;
}

bool ExamineDirectory(const std::string& directory, const std::string& osRelease,
                      std::vector<Finding>& findings) {
    const std::optional<std::vector<std::string>> entries = CRP::listDirectory(directory);
    if (!entries) {
        return false;
    }
    for (const std::string& entry : *entries) {
        if (entry != "." && entry != "..") {
            findings.push_back(Examine(std::string(directory).append("/").append(entry), osRelease));
        }
    }
    return true;
}

void Judge(std::vector<Finding>& findings, const CRP::DeactivationList& deactivated) {
    std::vector<Finding*> candidates;
    std::vector<CRP::PluginInfo> plugins;
    for (Finding& finding : findings) {
        if (!finding.isPlugin) {
            continue;
        }
        if (finding.plugin.osCompatible) {
            candidates.push_back(&finding);
            plugins.push_back(finding.plugin);
        } else {
            finding.verdict = Verdict::Incompatible;
            finding.reason = "needs an OS release that contains " +
                             Quoted(CRP::textOf(finding.plugin.header.compatibleOs));
        }
    }
    std::map<std::string, Finding*> newestByName;
    std::vector<Finding*> newest;
    for (const std::size_t index : CRP::selectNewest(plugins, [](const auto&, const auto&, bool) {})) {
        newest.push_back(candidates[index]);
        newestByName[CRP::textOf(plugins[index].header.name)] = candidates[index];
    }
    for (Finding* candidate : candidates) {
        const Finding* winner = newestByName[CRP::textOf(candidate->plugin.header.name)];
        if (winner != candidate) {
            candidate->verdict = Verdict::Superseded;
            candidate->supersededBy = winner->plugin.path;
            candidate->reason =
                "superseded by " + Label(winner->plugin) + " in " + Quoted(winner->plugin.path);
        }
    }
    DecideAboutNewest(newest, deactivated);
}

}  // namespace BoardView
