#pragma once

/// Calls of the C library that fail on demand, counted in all threads of the process.
///
/// The functions, by name: "malloc" (with calloc, realloc, aligned allocation and operator new), "open",
/// "openat", "read", "write" (with writev), "fopen", "close", "pipe" (with pipe2), "posix_spawn" (with
/// posix_spawnp), "waitpid", "mount", "ioctl", "symlink", "mkdir", "setenv", "pthread_create", "pidfd_open"
/// (through syscall), "poll", "opendir", "system" and "curl_easy_perform". Calls inside of the C library
/// itself are not seen.
///
/// A program that is not made for it takes the library by LD_PRELOAD: QX_FAIL names the function,
/// QX_FAIL_CALL the first call that fails (1), QX_FAIL_ALWAYS=1 lets all later ones fail, too. Programs that
/// it starts go without.
extern "C" {

/// Begins to count calls of a function.
/// @param function  one of the names above
/// @param call      the call that fails, from 1
/// @param always    whether all later ones fail, too
/// @return whether there is such a function
bool FailingCalls_Arm(const char* function, unsigned long call, bool always);
/// From here on nothing is counted and nothing fails.
void FailingCalls_Disarm();
/// @return the calls counted since arming
unsigned long FailingCalls_Counted();
/// @return the calls that failed since arming
unsigned long FailingCalls_Failed();

/// The calling thread's calls neither count nor fail until as many calls of FailingCalls_Resume.
void FailingCalls_Pause();
void FailingCalls_Resume();

/// @return blocks of memory that are allocated and not freed
long FailingCalls_LiveBlocks();
}
