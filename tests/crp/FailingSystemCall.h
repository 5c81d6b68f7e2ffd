#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

/// The argument of a system call that is to fail, and its value; other values pass.
struct FailingArgument {
    unsigned int index;
    std::uint32_t value;
};

/// From here on a system call fails, for this thread and for the threads and processes that it starts; there is no way
/// back.
inline void FailSystemCall(long number, int error, std::optional<FailingArgument> only = std::nullopt) {
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    const auto failOrAllow = [&](std::uint32_t value, std::uint8_t skip) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skip));
    };
    failOrAllow(static_cast<std::uint32_t>(number), only ? 3 : 1);
    if (only) {
        const auto offset = static_cast<std::uint32_t>(offsetof(seccomp_data, args) + 8 * only->index);
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset));
        failOrAllow(only->value, 1);
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));

    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) != 0) {
        std::abort();
    }
}
