#pragma once

#include "CrpPluginHeader.h"
#include "Sandbox.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

/// Makes plugin files for tests.
namespace PluginMaker {

/// Fills a text field; what is too long fills it to its border, without a NUL.
template <std::size_t Size>
void SetText(char (&field)[Size], const std::string& text) {
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), std::min(text.size(), Size));
}

inline CrpPluginHeader Trailer(const std::string& name, const std::string& version,
                               const std::string& compatibleOs = {}) {
    CrpPluginHeader trailer{};
    trailer.magic = CRP_PLUGIN_MAGIC;
    trailer.header_size = CRP_HEADER_SIZE;
    trailer.pluginType = CRP_PLUGIN_TYPE_SQUASHFS;
    SetText(trailer.name, name);
    SetText(trailer.version, version);
    SetText(trailer.compatibleOs, compatibleOs);
    return trailer;
}

inline std::string Bytes(const CrpPluginHeader& trailer) {
    return {reinterpret_cast<const char*>(&trailer), sizeof(trailer)};
}

inline CRP::PluginInfo Record(const std::string& name, const std::string& version, bool osCompatible = true) {
    return {Trailer(name, version), "/none/" + name, osCompatible};
}

/// Writes a plugin file with the image in front of the trailer.
inline void Write(const std::string& path, const CrpPluginHeader& trailer, const std::string& image = {}) {
    Sandbox::WriteFile(path, image + Bytes(trailer));
}

/// @param options  more options of mksquashfs
/// @return a squashfs image of a directory
inline std::string ImageOf(const std::string& directory, const std::string& options = {}) {
    const std::string file = directory + ".squashfs";
    const std::string command =
        "mksquashfs " + directory + " " + file + " -noappend -quiet -no-progress " + options + " >&2";
    if (std::system(command.c_str()) != 0) {
        std::abort();
    }
    const std::string image = Sandbox::ReadFile(file);
    std::filesystem::remove(file);
    return image;
}

}  // namespace PluginMaker
