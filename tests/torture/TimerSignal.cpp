// Loaded before a program by LD_PRELOAD: every thread of the process gets a signal a thousand times a second,
// whose handler is installed without SA_RESTART, so that system calls that wait are interrupted. Children
// that the process forks get theirs; programs that it starts go without.
//
// Of two calls the interruption is an outcome that is reported to the caller: waitpid and read. They are
// repeated here, so that all others can be held to the same outcomes as without signals. So are those with
// which tests copy their programs, wait for their turn and serve HTTP.

#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

namespace {

constexpr int Signal = SIGALRM;
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

template <typename... Arguments>
long Uninterrupted(long number, Arguments... arguments) {
    long result = 0;
    do {
        result = syscall(number, arguments...);
    } while (result < 0 && errno == EINTR);
    return result;
}

__attribute__((constructor)) void Start() {
    unsetenv("LD_PRELOAD");
    struct sigaction action {};
    action.sa_handler = Ignore;
    sigaction(Signal, &action, nullptr);
    StartTimer();
    // A forked child has no timers.
    pthread_atfork(nullptr, nullptr, [] { StartTimer(); });
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    return static_cast<pid_t>(Uninterrupted(SYS_wait4, pid, status, options, nullptr));
}

extern "C" ssize_t read(int fd, void* buffer, size_t size) {
    return Uninterrupted(SYS_read, fd, buffer, size);
}

extern "C" ssize_t sendfile64(int to, int from, off64_t* offset, size_t size) {
    return Uninterrupted(SYS_sendfile, to, from, offset, size);
}

extern "C" ssize_t sendfile(int to, int from, off_t* offset, size_t size) {
    return Uninterrupted(SYS_sendfile, to, from, offset, size);
}

extern "C" int flock(int fd, int operation) {
    return static_cast<int>(Uninterrupted(SYS_flock, fd, operation));
}

extern "C" int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
    return static_cast<int>(Uninterrupted(SYS_accept4, socket, address, length, flags));
}

extern "C" ssize_t recv(int socket, void* buffer, size_t size, int flags) {
    return Uninterrupted(SYS_recvfrom, socket, buffer, size, flags, nullptr, nullptr);
}

extern "C" ssize_t send(int socket, const void* bytes, size_t size, int flags) {
    return Uninterrupted(SYS_sendto, socket, bytes, size, flags, nullptr, 0);
}

extern "C" ssize_t __read_chk(int fd, void* buffer, size_t size, size_t) { return read(fd, buffer, size); }

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                              void* argument) {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const create = reinterpret_cast<Create*>(dlsym(RTLD_NEXT, "pthread_create"));
    auto* const body = new Body{function, argument};
    const int error = create(thread, attributes, RunWithTimer, body);
    if (error != 0) {
        delete body;
    }
    return error;
}

#pragma GCC visibility pop
