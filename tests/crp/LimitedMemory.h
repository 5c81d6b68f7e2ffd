#pragma once

#include <sys/resource.h>
#include <unistd.h>
#include <cstddef>
#include <fstream>

/// For as long as this lives, this process and its children can only take so much more memory.
class LimitedMemory {
public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr bool IsPossible = false;  // a sanitizer ends the process when it gets no memory
#else
    static constexpr bool IsPossible = true;
#endif

    explicit LimitedMemory(std::size_t more) {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &_before);
        const rlimit limit{pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + more, _before.rlim_max};
        setrlimit(RLIMIT_AS, &limit);
    }
    LimitedMemory(const LimitedMemory&) = delete;
    LimitedMemory& operator=(const LimitedMemory&) = delete;
    ~LimitedMemory() { setrlimit(RLIMIT_AS, &_before); }

private:
    rlimit _before{};
};
