#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

/// The name of a control group that no other test has, and its removal: what is in the group is moved to the
/// root of the hierarchy first.
class CpuSetGroup {
public:
    explicit CpuSetGroup(std::string hierarchy) : _hierarchy(std::move(hierarchy)) {
        // The process id is that of a namespace and says nothing outside.
        std::ostringstream name;
        name << "qx-test-" << std::hex << std::random_device{}() << std::random_device{}();
        _name = name.str();
    }
    CpuSetGroup(const CpuSetGroup&) = delete;
    CpuSetGroup& operator=(const CpuSetGroup&) = delete;
    ~CpuSetGroup() {
        for (const std::string& group : {directory() + "/host", directory()}) {
            moveAllTo(_hierarchy + "/cgroup.procs", group + "/cgroup.procs");
            ::rmdir(group.c_str());
        }
    }

    const std::string& name() const { return _name; }
    std::string directory() const { return _hierarchy + '/' + _name; }

private:
    static void moveAllTo(const std::string& target, const std::string& source) {
        std::ifstream processes(source);
        for (std::string process; processes >> process;) {
            std::ofstream(target) << process << std::flush;
        }
    }

    std::string _hierarchy;
    std::string _name;
};
