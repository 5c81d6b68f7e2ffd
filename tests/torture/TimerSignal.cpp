// Loaded before a program by LD_PRELOAD: every thread of the process gets a signal a thousand times a second,
// whose handler is installed without SA_RESTART, so that system calls that wait are interrupted. Children
// that the process forks get theirs; of the programs that it starts only those that QX_TIMER_PROGRAMS names.
//
// Interrupted calls of the tests themselves are repeated, which is code within QX_TIMER_TESTS, addresses in the
// program that was started first. So are read and waitpid within QX_TIMER_REPORTING, or within the library of which
// QX_TIMER_LIBRARY is a part of the name, to which the interruption is an outcome that it reports to its caller. All
// other calls, those of other libraries among them, are as the system makes them.

#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int Signal = SIGURG;    // does nothing to a program that is started while it is pending
constexpr long Period = 1000000;  // nanoseconds

void Ignore(int) {}

timer_t StartTimer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = Signal;
    event._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
    timer_t timer{};
    const itimerspec period{{0, Period}, {0, Period}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
        timer_settime(timer, 0, &period, nullptr) != 0) {
        abort();
    }
    return timer;
}

/// The timer of a thread that is not the first one.
class ThreadTimer {
public:
    ThreadTimer() : _timer(StartTimer()) {}
    ThreadTimer(const ThreadTimer&) = delete;
    ThreadTimer& operator=(const ThreadTimer&) = delete;
    ~ThreadTimer() { timer_delete(_timer); }

private:
    timer_t _timer;
};

struct Body {
    void* (*function)(void*);
    void* argument;
};

void* RunWithTimer(void* given) {
    const Body body = *static_cast<Body*>(given);
    delete static_cast<Body*>(given);
    const ThreadTimer timer;
    return body.function(body.argument);
}

struct Range {
    unsigned long begin;
    unsigned long end;
};

/// Parts of the program.
struct Code {
    Range* ranges = nullptr;  // in ascending order
    size_t count = 0;

    /// Takes it over from the environment, and out of it, since the addresses are those of this program only.
    void Take(const char* variable);
    bool Contains(const void* address) const;
};

Code tests;
Code reporting;
const char* reportingLibrary = nullptr;
bool isInterrupted = false;

/// @return whether that lies in a library with such a name
bool IsOfLibrary(const void* caller, const char* name) {
    Dl_info info{};
    return dladdr(caller, &info) != 0 && strstr(info.dli_fname, name) != nullptr;
}

/// @return whether that lies in OpenSSL, which only the clients and servers of tests let have a socket
bool IsOfOpenSsl(const void* caller) { return IsOfLibrary(caller, "/libcrypto.so"); }

bool IsReporting(const void* caller) {
    return reporting.Contains(caller) ||
           (reportingLibrary != nullptr && IsOfLibrary(caller, reportingLibrary));
}

bool Code::Contains(const void* address) const {
    const auto number = reinterpret_cast<unsigned long>(address);
    const Range* const next =
        std::upper_bound(ranges, ranges + count, number,
                         [](unsigned long wanted, const Range& range) { return wanted < range.begin; });
    return next != ranges && number <= next[-1].end;
}

/// A system call that is repeated where the rule says so.
template <typename... Arguments>
long Repeat(bool (*isToBeRepeated)(const void* caller), const void* caller, long number,
            Arguments... arguments) {
    long result = 0;
    do {
        result = syscall(number, arguments...);
    } while (result < 0 && errno == EINTR && isToBeRepeated(caller));
    return result;
}

bool IsOfTests(const void* caller) { return tests.Contains(caller) || IsOfOpenSsl(caller); }
bool IsOfTestsOrReporting(const void* caller) { return IsOfTests(caller) || IsReporting(caller); }
bool Always(const void* /*caller*/) { return true; }

template <typename... Arguments>
long Call(const void* caller, long number, Arguments... arguments) {
    return Repeat(IsOfTests, caller, number, arguments...);
}

template <typename... Arguments>
long CallReported(const void* caller, long number, Arguments... arguments) {
    return Repeat(IsOfTestsOrReporting, caller, number, arguments...);
}

#define CALLER __builtin_return_address(0)

bool IsNamedIn(const char* names) {
    const size_t length = strlen(program_invocation_short_name);
    for (const char* at = names; (at = strstr(at, program_invocation_short_name)) != nullptr; ++at) {
        if ((at == names || at[-1] == ' ') && (at[length] == ' ' || at[length] == '\0')) {
            return true;
        }
    }
    return false;
}

void Code::Take(const char* variable) {
    const char* text = getenv(variable);
    if (text == nullptr) {
        return;
    }
    unsigned long base = 0;
    const auto takeBase = [](dl_phdr_info* info, size_t, void* result) {
        *static_cast<unsigned long*>(result) = info->dlpi_addr;
        return 1;  // the program itself comes first
    };
    dl_iterate_phdr(takeBase, &base);
    ranges = new Range[strlen(text) / 4 + 1];
    for (char* end = nullptr; *text != '\0'; text = *end == ' ' ? end + 1 : end) {
        Range& range = ranges[count++];
        range.begin = base + strtoul(text, &end, 16);
        range.end = base + strtoul(end + 1, &end, 16);
    }
    unsetenv(variable);
}

__attribute__((constructor)) void Start() {
    const char* const programs = getenv("QX_TIMER_PROGRAMS");
    if (programs != nullptr && !IsNamedIn(programs)) {
        return;
    }
    tests.Take("QX_TIMER_TESTS");
    reporting.Take("QX_TIMER_REPORTING");
    reportingLibrary = getenv("QX_TIMER_LIBRARY");
    struct sigaction action {};
    action.sa_handler = Ignore;
    sigaction(Signal, &action, nullptr);
    StartTimer();
    isInterrupted = true;
    // A forked child has no timers.
    pthread_atfork(nullptr, nullptr, [] { StartTimer(); });
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    return static_cast<pid_t>(CallReported(CALLER, SYS_wait4, pid, status, options, nullptr));
}

extern "C" ssize_t read(int fd, void* buffer, size_t size) {
    return CallReported(CALLER, SYS_read, fd, buffer, size);
}

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
    return Call(CALLER, SYS_write, fd, bytes, size);
}

extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
    return Call(CALLER, SYS_recvmsg, socket, message, flags);
}

extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    return Call(CALLER, SYS_sendmsg, socket, message, flags);
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t length) {
    return static_cast<int>(Call(CALLER, SYS_connect, socket, address, length));
}

/// The kernel leaves in `left` what is left.
extern "C" int select(int count, fd_set* read, fd_set* write, fd_set* error, timeval* left) {
    return static_cast<int>(Call(CALLER, SYS_select, count, read, write, error, left));
}

extern "C" int pause() { return static_cast<int>(Call(CALLER, SYS_pause)); }

extern "C" int usleep(useconds_t time) {
    timespec left{time / 1000000, static_cast<long>(time % 1000000) * 1000};
    return static_cast<int>(Call(CALLER, SYS_nanosleep, &left, &left));
}

/// The kernel leaves in the time what is left.
extern "C" int poll(pollfd* polled, nfds_t count, int timeoutMs) {
    timespec left{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1000000};
    return static_cast<int>(
        Call(CALLER, SYS_ppoll, polled, count, timeoutMs < 0 ? nullptr : &left, nullptr, size_t{0}));
}

// Called where a file is copied by the C++ library, which only tests do.
extern "C" ssize_t sendfile64(int to, int from, off64_t* offset, size_t size) {
    return Repeat(Always, CALLER, SYS_sendfile, to, from, offset, size);
}

extern "C" ssize_t sendfile(int to, int from, off_t* offset, size_t size) {
    return Repeat(Always, CALLER, SYS_sendfile, to, from, offset, size);
}

extern "C" int flock(int fd, int operation) {
    return static_cast<int>(Call(CALLER, SYS_flock, fd, operation));
}

extern "C" int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
    return static_cast<int>(Call(CALLER, SYS_accept4, socket, address, length, flags));
}

extern "C" ssize_t recv(int socket, void* buffer, size_t size, int flags) {
    return Call(CALLER, SYS_recvfrom, socket, buffer, size, flags, nullptr, nullptr);
}

extern "C" ssize_t send(int socket, const void* bytes, size_t size, int flags) {
    return Call(CALLER, SYS_sendto, socket, bytes, size, flags, nullptr, 0);
}

extern "C" ssize_t __read_chk(int fd, void* buffer, size_t size, size_t) {
    return CallReported(CALLER, SYS_read, fd, buffer, size);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                              void* argument) {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const create = reinterpret_cast<Create*>(dlsym(RTLD_NEXT, "pthread_create"));
    if (!isInterrupted) {
        return create(thread, attributes, function, argument);
    }
    auto* const body = new Body{function, argument};
    const int error = create(thread, attributes, RunWithTimer, body);
    if (error != 0) {
        delete body;
    }
    return error;
}

#pragma GCC visibility pop
