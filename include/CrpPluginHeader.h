#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// First field of every plugin trailer.
inline constexpr std::uint32_t CRP_PLUGIN_MAGIC = 0x43525000;
/// Size of the trailer, and the value of its own size field.
inline constexpr std::uint32_t CRP_HEADER_SIZE = 2048;
/// The only plugin type that is loaded.
inline constexpr std::uint32_t CRP_PLUGIN_TYPE_SQUASHFS = 1;

/// The trailer of a container runtime plugin file: the last 2048 bytes, integers little-endian. In front of
/// it lies the squashfs image, from the start of the file on. Texts end at their first NUL or at their
/// field's border.
struct CrpPluginHeader {
    std::uint32_t magic;
    std::uint32_t reserved1;
    std::uint32_t header_size;
    std::uint32_t reserved2;
    char name[64];               ///< key for duplicates, deactivation and the mount point
    char version[32];            ///< normally major.minor.patch
    char compatibleOs[672];      ///< must occur in the running kernel release; empty: any
    char initCommand[384];       ///< shell command run inside the mounted image; empty: none
    std::uint32_t initPriority;  ///< smaller loads first
    std::uint32_t reserved3;
    std::uint64_t imageSize;  ///< bytes of the squashfs image
    std::uint32_t pluginType;
    std::uint8_t reserved4[860];
};
static_assert(sizeof(CrpPluginHeader) == CRP_HEADER_SIZE);
static_assert(offsetof(CrpPluginHeader, header_size) == 8);
static_assert(offsetof(CrpPluginHeader, name) == 16);
static_assert(offsetof(CrpPluginHeader, version) == 80);
static_assert(offsetof(CrpPluginHeader, compatibleOs) == 112);
static_assert(offsetof(CrpPluginHeader, initCommand) == 784);
static_assert(offsetof(CrpPluginHeader, initPriority) == 1168);
static_assert(offsetof(CrpPluginHeader, imageSize) == 1176);
static_assert(offsetof(CrpPluginHeader, pluginType) == 1184);

namespace CRP {

/// One plugin file that was found.
struct PluginInfo {
    CrpPluginHeader header;     ///< as it stands in the file
    std::string path;           ///< directory + "/" + entry name
    bool osCompatible = false;  ///< whether it may run on this system
};

}  // namespace CRP
