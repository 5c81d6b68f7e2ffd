#include "CpuSetTree.h"

#include "FileAccess.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace QxNLinuxPlatform {

namespace {

constexpr const char* Cores = "/cpuset.cpus";

/// @return the sets below a set, those further up first; ones that vanish meanwhile are left out
std::vector<std::string> setsBelow(const std::string& directory) {
    std::vector<std::string> sets;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->is_directory(error)) {
            sets.push_back(entry->path());
            const std::vector<std::string> further = setsBelow(entry->path());
            sets.insert(sets.end(), further.begin(), further.end());
        }
    }
    return sets;
}

int setCores(const std::string& directory, const std::string& cores) {
    return writeControlFile(directory + Cores, cores + '\n');
}

int addCores(const std::string& directory, const std::string& cores) {
    std::string present = readFile(directory + Cores).text;
    present.erase(present.find_last_not_of(" \n") + 1);
    return setCores(directory, present.empty() || cores.empty() ? present + cores : present + ',' + cores);
}

/// Cores are handed down from above and taken away from below.
int redefineAll(const std::string& directory, const std::string& cores) {
    int error = addCores(directory, cores);
    std::vector<std::string> sets = setsBelow(directory);
    for (auto set = sets.begin(); error == 0 && set != sets.end(); ++set) {
        error = addCores(*set, cores);
    }
    for (auto set = sets.rbegin(); error == 0 && set != sets.rend(); ++set) {
        // Only an empty set can be removed.
        error = ::rmdir(set->c_str()) == 0 ? 0 : setCores(*set, cores);
    }
    return error == 0 ? setCores(directory, cores) : error;
}

}  // namespace

int redefineCores(const std::string& directory, const std::string& cores) {
    const int error = setCores(directory, cores);
    return error == EBUSY ? redefineAll(directory, cores) : error;
}

}  // namespace QxNLinuxPlatform
