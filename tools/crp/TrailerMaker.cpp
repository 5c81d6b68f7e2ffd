#include "TrailerMaker.h"

#include "Commands.h"
#include "ToolError.h"
#include "crp/PluginVersion.h"

#include <cstring>

namespace {

template <std::size_t Size>
void SetText(char (&field)[Size], const std::string& text, const char* option) {
    if (text.find('\0') != std::string::npos) {
        throw ToolError(ExitCode::Usage,
                        std::string(option) + " contains a NUL byte; a board would end there");
    }
    if (text.size() >= Size) {
        throw ToolError(ExitCode::Usage, std::string(option) + " has " + std::to_string(text.size()) +
                                             " bytes, but its field takes at most " +
                                             std::to_string(Size - 1) + "; shorten it");
    }
    memcpy(field, text.data(), text.size());
}

void RefuseEmpty(const std::string& text, const char* option) {
    if (text.empty()) {
        throw ToolError(ExitCode::Usage, std::string(option) + " is empty; plugins are told apart by it");
    }
}

}  // namespace

CrpPluginHeader MakeTrailer(const PackOptions& options, std::uint64_t imageSize) {
    RefuseEmpty(options.name, "--name");
    RefuseEmpty(options.version, "--version");
    CrpPluginHeader trailer{};
    trailer.magic = CRP_PLUGIN_MAGIC;
    trailer.header_size = CRP_HEADER_SIZE;
    SetText(trailer.name, options.name, "--name");
    SetText(trailer.version, options.version, "--version");
    SetText(trailer.compatibleOs, options.compatibleOs, "--os");
    SetText(trailer.initCommand, options.initCommand, "--init");
    trailer.initPriority = options.priority;
    trailer.imageSize = imageSize;
    trailer.pluginType = options.type;
    return trailer;
}

std::vector<std::string> DoubtsAbout(const PackOptions& options) {
    std::vector<std::string> doubts;
    if (!CRP::beginsWithNumber(options.version)) {
        doubts.push_back(
            "the version does not begin with a number, so it counts as 0.0.0 beside others of this name");
    }
    if (options.type != CRP_PLUGIN_TYPE_SQUASHFS) {
        doubts.push_back("boards load no plugin of type " + std::to_string(options.type) +
                         ", only of type 1");
    }
    return doubts;
}
