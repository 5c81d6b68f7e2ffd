#include "ImageChecks.h"

#include "SquashfsImage.h"
#include "TrailerText.h"
#include "crp/InitCommand.h"
#include "crp/PluginHeader.h"
#include "support/UniqueFd.h"

#include <fcntl.h>
#include <filesystem>

using QxNSupport::UniqueFd;

namespace {

/// @return the file of the image that the init command runs, relative to the image's root; empty when the
/// command names none there, or only the shell could tell which
std::string InitFile(const std::string& initCommand) {
    const std::string word(CRP::firstWordOf(initCommand));
    const bool isRelativePath = word.find('/') != std::string::npos && !word.starts_with('/');
    const bool isScript = CRP::runsThroughShell(initCommand) && !word.starts_with('/');
    if ((!isRelativePath && !isScript) ||
        word.find_first_of("\"'\\$`;&|<>(){}*?[]~#=!\t\n") != std::string::npos) {
        return {};
    }
    const std::string path = std::filesystem::path(word).lexically_normal().string();
    return path == "." || path.starts_with("..") ? std::string() : path;
}

/// @return how much of the file's start the board finds there, and in words why
std::pair<std::uint64_t, std::string> Available(const BoardView::Finding& finding) {
    constexpr std::uint64_t Sector = 512;  // loop devices end at a whole one
    const std::uint64_t imageSize = finding.plugin.header.imageSize;
    if (imageSize == 0) {  // the device shows the trailer too
        const std::uint64_t inFront = finding.fileSize - CRP_HEADER_SIZE;
        return {inFront, "the file has " + std::to_string(inFront) + " in front of its trailer"};
    }
    const std::uint64_t shown = imageSize / Sector * Sector;
    return {shown, "imageSize says " + std::to_string(imageSize) + ", of which a loop device shows " +
                       std::to_string(shown)};
}

/// @return whether the start of the file is a whole squashfs image
bool CheckSuperblock(BoardView::Finding& finding) {
    const UniqueFd file(open(finding.plugin.path.c_str(), O_RDONLY | O_CLOEXEC));
    const std::optional<std::uint64_t> used = SquashfsImage::BytesUsed(file.Get());
    if (!used) {
        finding.problems.push_back("the mount will fail: the file does not begin with a squashfs image");
        return false;
    }
    const auto [available, why] = Available(finding);
    if (*used > available) {
        finding.problems.push_back("the image is cut off: its file system has " + std::to_string(*used) +
                                   " bytes, " + why);
        return false;
    }
    return true;
}

void CheckInitFile(BoardView::Finding& finding, std::vector<std::string>& notes) {
    const std::string initCommand = CRP::textOf(finding.plugin.header.initCommand);
    const std::string path = InitFile(initCommand);
    if (path.empty()) {
        return;
    }
    const SquashfsImage::LookupResult result = SquashfsImage::Find(finding.plugin.path, path);
    const std::string label = "the init command's file " + Quoted(path);
    switch (result.lookup) {
        case SquashfsImage::Lookup::Found:
            if (result.entry.type == 'd') {
                finding.problems.push_back(label + " is a directory");
            } else if (result.entry.type == '-' && !result.entry.isExecutable &&
                       !CRP::runsThroughShell(initCommand)) {
                finding.problems.push_back(label + " is not executable");
            }
            break;
        case SquashfsImage::Lookup::Missing:
            finding.problems.push_back(label + " is not in the image");
            break;
        case SquashfsImage::Lookup::Unclear:
            notes.push_back(label + " of " + Quoted(finding.plugin.path) +
                            " lies behind a link and was not looked for");
            break;
        case SquashfsImage::Lookup::Unreadable:
            finding.problems.push_back("unsquashfs cannot read the image; it is damaged or not supported");
            break;
        case SquashfsImage::Lookup::NoTool:
            notes.push_back(label + " of " + Quoted(finding.plugin.path) +
                            " was not looked for: unsquashfs is not installed (squashfs-tools)");
            break;
    }
}

}  // namespace

void CheckImage(BoardView::Finding& finding, std::vector<std::string>& notes) {
    if (!IsImageComplete(finding.plugin.header, finding.fileSize)) {
        finding.problems.push_back("the file is cut off: it has " +
                                   std::to_string(finding.fileSize - CRP_HEADER_SIZE) +
                                   " bytes in front of its trailer, imageSize says " +
                                   std::to_string(finding.plugin.header.imageSize));
        return;
    }
    if (finding.plugin.header.pluginType == CRP_PLUGIN_TYPE_SQUASHFS && CheckSuperblock(finding)) {
        CheckInitFile(finding, notes);
    }
}
