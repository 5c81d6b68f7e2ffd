// Both forms of every function are defined here, the one for large files and the other one.
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE

#include "FailingCalls.h"

#include <curl/curl.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Nothing in here may allocate memory: it stands below malloc.

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

enum Call {
    Malloc,
    Open,
    OpenAt,
    Read,
    Write,
    FOpen,
    Close,
    Pipe,
    PosixSpawn,
    WaitPid,
    Mount,
    Ioctl,
    Symlink,
    MkDir,
    SetEnv,
    PthreadCreate,
    PidfdOpen,
    Poll,
    OpenDir,
    System,
    CurlPerform,
    CallCount,
    None = -1
};

constexpr std::array<const char*, CallCount> Names{
    "malloc", "open",           "openat",     "read",  "write",   "fopen",   "close",
    "pipe",   "posix_spawn",    "waitpid",    "mount", "ioctl",   "symlink", "mkdir",
    "setenv", "pthread_create", "pidfd_open", "poll",  "opendir", "system",  "curl_easy_perform"};

std::atomic<int> armed{None};
std::atomic<unsigned long> failingCall{0};
std::atomic<bool> failsAlways{false};
std::atomic<unsigned long> counted{0};
std::atomic<unsigned long> failed{0};
std::atomic<long> liveBlocks{0};
// Reached without a call, since a call could allocate.
__attribute__((tls_model("initial-exec"))) thread_local int pauses = 0;

/// @return whether this call is to fail; errno is then set. Threads are made by the platform only, so that it
///         is not exempt in this.
bool Fails(Call call, int error) {
    if (armed.load(std::memory_order_relaxed) != call || (pauses > 0 && call != PthreadCreate)) {
        return false;
    }
    const unsigned long number = ++counted;
    const unsigned long first = failingCall;
    if (number != first && !(number > first && failsAlways)) {
        return false;
    }
    ++failed;
    errno = error;
    return true;
}

void* Find(const char* name) {
    const int error = errno;
    void* const function = dlsym(RTLD_NEXT, name);
    errno = error;
    return function;
}

/// The function of that name behind this library.
#define REAL(name)                                            \
    ([] {                                                     \
        static std::atomic<void*> found{nullptr};             \
        void* function = found;                               \
        if (function == nullptr) {                            \
            found = function = Find(#name);                   \
        }                                                     \
        return reinterpret_cast<decltype(&::name)>(function); \
    }())

int CreationMode(int flags, va_list arguments) {
    return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, int) : 0;
}

void* Counted(void* block) {
    if (block != nullptr) {
        ++liveBlocks;
    }
    return block;
}

__attribute__((constructor)) void ArmFromEnvironment() {
    const char* const function = getenv("QX_FAIL");
    if (function == nullptr) {
        return;
    }
    const char* const call = getenv("QX_FAIL_CALL");
    const char* const always = getenv("QX_FAIL_ALWAYS");
    unsetenv("LD_PRELOAD");
    if (!FailingCalls_Arm(function, call != nullptr ? strtoul(call, nullptr, 10) : 1,
                          always != nullptr && always[0] == '1')) {
        dprintf(STDERR_FILENO, "QX_FAIL: no function '%s'\n", function);
        _exit(96);
    }
}

}  // namespace

extern "C" {

#pragma GCC visibility push(default)

bool FailingCalls_Arm(const char* function, unsigned long call, bool always) {
    for (int i = 0; i < CallCount; ++i) {
        if (strcmp(Names[static_cast<size_t>(i)], function) == 0) {
            counted = 0;
            failed = 0;
            failingCall = call;
            failsAlways = always;
            armed = i;
            return true;
        }
    }
    return false;
}

void FailingCalls_Disarm() { armed = None; }
unsigned long FailingCalls_Counted() { return counted; }
unsigned long FailingCalls_Failed() { return failed; }
void FailingCalls_Pause() { ++pauses; }
void FailingCalls_Resume() { --pauses; }
long FailingCalls_LiveBlocks() { return liveBlocks; }

// --- Memory ---

void* malloc(size_t size) { return Fails(Malloc, ENOMEM) ? nullptr : Counted(__libc_malloc(size)); }

void* calloc(size_t count, size_t size) {
    return Fails(Malloc, ENOMEM) ? nullptr : Counted(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size) {
    if (block == nullptr) {
        return malloc(size);
    }
    if (size == 0) {
        free(block);
        return nullptr;
    }
    return Fails(Malloc, ENOMEM) ? nullptr : __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size) {
    return Fails(Malloc, ENOMEM) ? nullptr : Counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size) {
    void* const memory = memalign(alignment, size);
    if (memory == nullptr) {
        return ENOMEM;
    }
    *block = memory;
    return 0;
}

void free(void* block) {
    if (block != nullptr) {
        --liveBlocks;
        __libc_free(block);
    }
}

// --- Files ---

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = CreationMode(flags, arguments);
    va_end(arguments);
    return Fails(Open, EMFILE) ? -1 : REAL(open64)(path, flags, mode);
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = CreationMode(flags, arguments);
    va_end(arguments);
    return open64(path, flags, mode);
}

int __open64_2(const char* path, int flags) { return open64(path, flags); }
int __open_2(const char* path, int flags) { return open64(path, flags); }

int openat64(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = CreationMode(flags, arguments);
    va_end(arguments);
    return Fails(OpenAt, EMFILE) ? -1 : REAL(openat64)(directory, path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = CreationMode(flags, arguments);
    va_end(arguments);
    return openat64(directory, path, flags, mode);
}

int __openat64_2(int directory, const char* path, int flags) { return openat64(directory, path, flags); }
int __openat_2(int directory, const char* path, int flags) { return openat64(directory, path, flags); }

ssize_t read(int fd, void* buffer, size_t size) {
    return Fails(Read, EIO) ? -1 : REAL(read)(fd, buffer, size);
}

ssize_t __read_chk(int fd, void* buffer, size_t size, size_t) { return read(fd, buffer, size); }

ssize_t write(int fd, const void* bytes, size_t size) {
    return Fails(Write, ENOSPC) ? -1 : REAL(write)(fd, bytes, size);
}

ssize_t writev(int fd, const iovec* parts, int count) {
    return Fails(Write, ENOSPC) ? -1 : REAL(writev)(fd, parts, count);
}

FILE* fopen64(const char* path, const char* mode) {
    return Fails(FOpen, EMFILE) ? nullptr : REAL(fopen64)(path, mode);
}

FILE* fopen(const char* path, const char* mode) { return fopen64(path, mode); }

int close(int fd) {
    // The descriptor is gone all the same.
    const int result = REAL(close)(fd);
    return Fails(Close, EIO) ? -1 : result;
}

int pipe2(int ends[2], int flags) { return Fails(Pipe, EMFILE) ? -1 : REAL(pipe2)(ends, flags); }
int pipe(int ends[2]) { return pipe2(ends, 0); }

int poll(pollfd* polled, nfds_t count, int timeoutMs) {
    return Fails(Poll, ENOMEM) ? -1 : REAL(poll)(polled, count, timeoutMs);
}

int __poll_chk(pollfd* polled, nfds_t count, int timeoutMs, size_t) { return poll(polled, count, timeoutMs); }

int mkdir(const char* path, mode_t mode) { return Fails(MkDir, ENOSPC) ? -1 : REAL(mkdir)(path, mode); }

int symlink(const char* target, const char* name) {
    return Fails(Symlink, EROFS) ? -1 : REAL(symlink)(target, name);
}

DIR* opendir(const char* path) { return Fails(OpenDir, EMFILE) ? nullptr : REAL(opendir)(path); }

int mount(const char* source, const char* target, const char* type, unsigned long flags, const void* data) {
    return Fails(Mount, EIO) ? -1 : REAL(mount)(source, target, type, flags, data);
}

int ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return Fails(Ioctl, EBUSY) ? -1 : REAL(ioctl)(fd, request, argument);
}

// --- Processes ---

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const argv[], char* const environment[]) {
    return Fails(PosixSpawn, EAGAIN) ? EAGAIN
                                     : REAL(posix_spawn)(pid, path, actions, attributes, argv, environment);
}

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const argv[], char* const environment[]) {
    return Fails(PosixSpawn, EAGAIN) ? EAGAIN
                                     : REAL(posix_spawnp)(pid, file, actions, attributes, argv, environment);
}

pid_t waitpid(pid_t pid, int* status, int options) {
    return Fails(WaitPid, EINTR) ? -1 : REAL(waitpid)(pid, status, options);
}

int system(const char* command) { return Fails(System, EAGAIN) ? -1 : REAL(system)(command); }

int setenv(const char* name, const char* value, int overwrite) {
    return Fails(SetEnv, ENOMEM) ? -1 : REAL(setenv)(name, value, overwrite);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) {
    return Fails(PthreadCreate, EAGAIN) ? EAGAIN
                                        : REAL(pthread_create)(thread, attributes, function, argument);
}

long syscall(long number, ...) {
    std::array<long, 6> values;
    va_list arguments;
    va_start(arguments, number);
    for (long& value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    if (number == SYS_pidfd_open && Fails(PidfdOpen, EMFILE)) {
        return -1;
    }
    return REAL(syscall)(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

// --- HTTP ---

CURLcode curl_easy_perform(CURL* handle) {
    return Fails(CurlPerform, EIO) ? CURLE_COULDNT_CONNECT : REAL(curl_easy_perform)(handle);
}

// --- Code compiled with -finstrument-functions is exempt ---

void __cyg_profile_func_enter(void*, void*) { FailingCalls_Pause(); }
void __cyg_profile_func_exit(void*, void*) { FailingCalls_Resume(); }

#pragma GCC visibility pop
}
