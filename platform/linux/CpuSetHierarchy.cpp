#include "CpuSetHierarchy.h"

#include <sstream>

namespace QxNLinuxPlatform {

bool hasWord(const std::string& list, const std::string& word) {
    std::istringstream words(list);
    for (std::string candidate; words >> candidate;) {
        if (candidate == word) {
            return true;
        }
    }
    return false;
}

bool isCpuSetName(const std::string& name) {
    return !name.empty() && name != "." && name.find("..") == std::string::npos &&
           name.find('/') == std::string::npos;
}

}  // namespace QxNLinuxPlatform
