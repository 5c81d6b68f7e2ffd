#include "crp/PluginHeader.h"

namespace CRP {

TrailerStatus checkTrailer(const CrpPluginHeader& header) {
    if (header.magic != CRP_PLUGIN_MAGIC) {
        return TrailerStatus::WrongMagic;
    }
    return header.header_size == CRP_HEADER_SIZE ? TrailerStatus::Valid : TrailerStatus::IncompatibleSize;
}

}  // namespace CRP
