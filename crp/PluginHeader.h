#pragma once

#include "CrpPluginHeader.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <string>

namespace CRP {

static_assert(std::endian::native == std::endian::little, "trailers are taken over as they lie in the file");

/// @return a text field of the trailer, up to its first NUL or to the field's border
template <std::size_t Size>
std::string textOf(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

/// What the last bytes of a file turned out to be.
enum class TrailerStatus {
    Valid,
    WrongMagic,        ///< no plugin
    IncompatibleSize,  ///< a plugin whose trailer has another layout
};

/// Judges a trailer by its own fields.
TrailerStatus checkTrailer(const CrpPluginHeader& header);

}  // namespace CRP
