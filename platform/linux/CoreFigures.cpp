#include "CoreFigures.h"

#include "PlatformOptions.h"

namespace QxNLinuxPlatform {

std::optional<unsigned int> readCoreOption(const char* option) {
    constexpr unsigned int MostCores = 4096;
    return readNumberOption("Cores", option, {0, MostCores});
}

}  // namespace QxNLinuxPlatform
