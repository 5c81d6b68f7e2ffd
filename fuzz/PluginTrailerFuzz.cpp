// Any bytes as a plugin file: what the reader and the rules make of it, and that they stay inside the trailer.

#include "Support.h"
#include "crp/InitCommand.h"
#include "crp/PluginFile.h"
#include "crp/PluginHeader.h"
#include "crp/PluginSelection.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

namespace {

using namespace CRP;
using Fuzz::MemoryFile;
using Fuzz::Require;

PluginFileStatus ExpectedStatus(const std::uint8_t* data, std::size_t size) {
    if (size < CRP_HEADER_SIZE) {
        return PluginFileStatus::TooShort;
    }
    const std::uint8_t* trailer = data + size - CRP_HEADER_SIZE;
    constexpr std::uint8_t Magic[] = {0x00, 0x50, 0x52, 0x43};
    constexpr std::uint8_t Size[] = {0x00, 0x08, 0x00, 0x00};
    if (memcmp(trailer, Magic, sizeof(Magic)) != 0) {
        return PluginFileStatus::WrongMagic;
    }
    return memcmp(trailer + 8, Size, sizeof(Size)) == 0 ? PluginFileStatus::Plugin
                                                        : PluginFileStatus::IncompatibleHeader;
}

template <std::size_t Size>
std::string CheckText(const char (&field)[Size]) {
    std::string text = textOf(field);
    Require(text.size() <= Size && text.find('\0') == std::string::npos);
    Require(memcmp(text.data(), field, text.size()) == 0);
    Require(text.size() == Size || field[text.size()] == '\0');
    return text;
}

void CheckMountPoint(const std::string& name) {
    constexpr const char* Kept = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    const std::string mountPoint = mountPointOf(name);
    Require(mountPoint.starts_with("/mnt/crp_") && mountPoint.size() == name.size() + 9);
    Require(mountPoint.find_first_not_of(Kept, 9) == std::string::npos);
    Require(mountPointOf(mountPoint.substr(9)) == mountPoint);
}

/// A script, by its place or by its name, is run by the shell.
void CheckCommand(const std::string& command) {
    std::istringstream words(command);
    std::string program;
    std::getline(words, program, ' ');
    const bool isScript =
        program[0] == '.' || (program.size() > 3 && program.substr(program.size() - 3) == ".sh");
    Require(initCommandLine("/mnt/crp_x", command) ==
            "cd /mnt/crp_x && " + (isScript ? "sh " + command : command));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static const MemoryFile file;
    file.Write(data, size);
    // On the heap and of exactly its size, so that the sanitizer sees every byte read or written beyond it.
    const auto plugin = std::make_unique<CrpPluginHeader>();
    const PluginFileStatus status = readPluginFile(file.Path(), *plugin);
    Require(status == ExpectedStatus(data, size));
    if (status != PluginFileStatus::Plugin) {
        return 0;
    }
    Require(memcmp(plugin.get(), data + size - CRP_HEADER_SIZE, CRP_HEADER_SIZE) == 0);
    const std::string name = CheckText(plugin->name);
    const std::string version = CheckText(plugin->version);
    const std::string compatibleOs = CheckText(plugin->compatibleOs);
    CheckMountPoint(name);
    CheckCommand(CheckText(plugin->initCommand));

    Require(isCompatibleWith(compatibleOs, "<" + compatibleOs + ">"));
    const bool isCompatible = isCompatibleWith(compatibleOs, "6.1.0-rt");
    const PluginInfo info{*plugin, "/x", isCompatible};
    Require(decideLoad(info, {{name, version}}) == LoadDecision::Deactivated);
    const LoadDecision decision = decideLoad(info, {{name + "x", version}, {name, version + "x"}});
    Require((decision == LoadDecision::Load) == (isCompatible && plugin->pluginType == 1));

    int duplicates = 0;
    const auto kept = selectNewest({info, info}, [&](const PluginInfo&, const PluginInfo&, bool isNewer) {
        Require(!isNewer);
        ++duplicates;
    });
    Require(duplicates == 1 && kept.size() == 1 && kept[0] == 0);
    return 0;
}
