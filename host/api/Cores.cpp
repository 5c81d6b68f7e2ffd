#include "api/Cores.h"

#include "QxCHypervisor.h"
#include "QxCScannerBoardHw.h"
#include "support/ErrorListScope.h"

#include <unistd.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace fs = std::filesystem;
using QxNJson::json;

namespace {

constexpr int HighestCore = 4095;

/// Where the set lies with control groups of version 1 and 2, and which file says what is in effect.
constexpr std::array<std::pair<const char*, const char*>, 2> Places{{
    {"/sys/fs/cgroup/cpuset/libpod_parent", "cpuset.effective_cpus"},
    {"/sys/fs/cgroup/libpod_parent", "cpuset.cpus.effective"},
}};

/// What Podman and compose start beside the containers.
const std::set<std::string> Tools{
    "podman",         "crun",  "conmon",      "docker-compose", "netavark",     "aardvark-dns", "catatonit",
    "fuse-overlayfs", "pasta", "slirp4netns", "rootlessport",   "qxcontainerd", "exe"};

std::string ReadLine(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool IsInContainer(const fs::path& group) {
    return std::any_of(group.begin(), group.end(), [](const fs::path& part) {
        const std::string name = part.string();
        return name.starts_with("libpod-") && !name.starts_with("libpod-conmon");
    });
}

void CollectStrangers(const fs::path& group, json& strangers) {
    std::ifstream list(group / "cgroup.procs");
    for (std::istream_iterator<pid_t> pid(list), end; pid != end; ++pid) {
        const std::string command = ReadLine("/proc/" + std::to_string(*pid) + "/comm");
        if (*pid != getpid() && !command.empty() && Tools.count(command) == 0) {
            strangers.push_back(json{{"pid", *pid}, {"command", command}});
        }
    }
}

}  // namespace

std::vector<int> CoresOfList(const std::string& list) {
    std::vector<int> cores;
    std::istringstream parts(list);
    for (std::string part; std::getline(parts, part, ',');) {
        int first = 0;
        const char* const end = part.data() + part.size();
        const auto [dash, error] = std::from_chars(part.data(), end, first);
        int last = first;
        if (error == std::errc() && dash != end && *dash == '-') {
            std::from_chars(dash + 1, end, last);
        }
        for (int core = first; error == std::errc() && core <= std::min(last, HighestCore); ++core) {
            cores.push_back(core);
        }
    }
    return cores;
}

ContainerCpuSet ReadContainerCpuSet() {
    ContainerCpuSet set;
    set.strangers = json::array();
    for (const auto& [place, file] : Places) {
        std::error_code error;
        if (!fs::is_directory(place, error)) {
            continue;
        }
        set.exists = true;
        set.effective = ReadLine(fs::path(place) / file);
        set.cores = CoresOfList(set.effective);
        CollectStrangers(place, set.strangers);
        for (fs::recursive_directory_iterator group(place, error), end; !error && group != end;
             group.increment(error)) {
            std::error_code ignored;
            if (group->is_directory(ignored) && !IsInContainer(group->path())) {
                CollectStrangers(group->path(), set.strangers);
            }
        }
        break;
    }
    return set;
}

json DescribeCores(unsigned configured, unsigned maximum) {
    unsigned total = 0;
    unsigned usable = 0;
    unsigned isolated = 0;
    QxNSupport::ErrorListScope errors;
    QxCScannerBoardHw::getCnCoreCount(errors.List(), total, usable, isolated);
    const unsigned hypervisor = QxNHypervisor::QxCHypervisor::getInstance()->getTotalCoreCount();
    ContainerCpuSet set = ReadContainerCpuSet();
    json cores = json::array();
    for (unsigned core = 0; core < std::min(total, static_cast<unsigned>(HighestCore + 1)); ++core) {
        const bool isContainers =
            std::find(set.cores.begin(), set.cores.end(), static_cast<int>(core)) != set.cores.end();
        const char* const owner = isContainers                 ? "containers"
                                  : core < usable              ? "linux"
                                  : core + hypervisor >= total ? "hypervisor"
                                                               : "unused";
        cores.push_back(json{{"core", core}, {"owner", owner}});
    }
    json answer = json::object();
    answer["cores"] = std::move(cores);
    answer["configured"] = configured;
    answer["maximum"] = maximum;
    answer["effective"] = set.effective;
    answer["strangers"] = std::move(set.strangers);
    return answer;
}
