#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What the tool has to know of squashfs images.
namespace SquashfsImage {

/// @param file  descriptor of a file that begins with an image
/// @return the number of bytes that the file system occupies; nothing when it is no squashfs
std::optional<std::uint64_t> BytesUsed(int file);

/// An entry of an image.
struct Entry {
    char type;          ///< as ls shows it: '-', 'd', 'l', ...
    bool isExecutable;  ///< for its owner
};

/// What looking for a path in an image came to.
enum class Lookup {
    Found,
    Missing,
    Unclear,     ///< the way leads over a link
    Unreadable,  ///< the image is damaged
    NoTool,      ///< the program that can tell is not installed
};

struct LookupResult {
    Lookup lookup;
    Entry entry{};  ///< when found
};

/// Looks for a path in the image at the start of a file.
/// @param path  relative to the image's root, normalised
LookupResult Find(const std::string& file, const std::string& path);

/// Reads one line of a long listing.
/// @param path  receives the path, relative to the image's root; empty for the root
/// @return nothing when the line is none of a listing
std::optional<Entry> ParseListingLine(std::string_view line, std::string& path);

}  // namespace SquashfsImage
