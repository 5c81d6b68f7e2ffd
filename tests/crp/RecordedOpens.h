#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Records what a thread of this process opens, as the kernel is asked for it.
namespace RecordedOpens {

struct Record {
    std::mutex mutex;
    std::vector<std::string> opens;
};

/// @return the text at an address of this process, as the kernel sees it: the thread that it belongs to waits
inline std::string TextAt(std::uint64_t address) {
    char text[4096] = {};
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    // What lies behind it may not be there.
    for (size_t length = 0; length + 1 < sizeof(text); ++length) {
        if (pread(memory, text + length, 1, static_cast<off_t>(address + length)) != 1 ||
            text[length] == '\0') {
            break;
        }
    }
    close(memory);
    return text;
}

/// @return path, access, and "inherited" when programs that are started get the descriptor too
inline std::string Describe(const seccomp_data& call) {
    constexpr const char* Access[] = {" read", " write", " read-write", " nothing"};
    const auto flags = static_cast<unsigned int>(call.args[2]);
    return TextAt(call.args[1]) + Access[flags & O_ACCMODE] + ((flags & O_CLOEXEC) != 0 ? "" : " inherited");
}

/// Lets every call happen once it is recorded.
inline void Serve(int listener, Record& record) {
    for (;;) {
        seccomp_notif call{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
            continue;
        }
        {
            const std::lock_guard lock(record.mutex);
            record.opens.push_back(Describe(call.data));
        }
        seccomp_notif_resp answer{call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
        ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
}

/// @return the descriptor of whoever is asked from here on whenever this thread opens something
inline int InstallListener() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter{std::size(program), program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    const long listener =
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter);
    if (listener < 0) {
        std::abort();
    }
    return static_cast<int>(listener);
}

/// Does the work, once in a process; it must not start programs.
/// @return what it opened, in order
template <typename Work>
std::vector<std::string> During(const Work& work) {
    static auto& record = *new Record;
    static auto& listener = *new std::promise<int>;
    std::thread([] { Serve(listener.get_future().get(), record); }).detach();
    listener.set_value(InstallListener());
    work();
    const std::lock_guard lock(record.mutex);
    return record.opens;
}

}  // namespace RecordedOpens
