#include "Sandbox.h"

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int RunOne(const std::string& name) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        testing::GTEST_FLAG(filter) = name;
        Sandbox::Enter();
        exit(RUN_ALL_TESTS());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

/// @return whether the checker has ended a test, with its own code or, after a fault, with the signal; a sandbox gives
///         signals as exit codes, as a shell does
bool IsFinding(int status) {
    constexpr int CheckersExitCode = 99;
    constexpr int FirstOfSignals = 128;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : FirstOfSignals + WTERMSIG(status);
    const std::array<int, 4> faults{SIGSEGV, SIGBUS, SIGILL, SIGFPE};
    return code == CheckersExitCode ||
           std::find(faults.begin(), faults.end(), code - FirstOfSignals) != faults.end();
}

/// Runs each test in a process of its own, forked from this one. Under a memory checker, which translates the program,
/// this is many times faster than to start the program for each test. A test that fails there is no finding: programs that
/// cannot be started, for one, are not reported under it.
/// @param pattern  of the names, as in a shell
/// @return 1 when there is a finding
int RunEach(const char* pattern) {
    int ran = 0;
    int bad = 0;
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int at = 0; at < all.total_test_suite_count(); ++at) {
        const testing::TestSuite& suite = *all.GetTestSuite(at);
        for (int of = 0; of < suite.total_test_count(); ++of) {
            const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(of)->name();
            if (fnmatch(pattern, name.c_str(), 0) != 0) {
                continue;
            }
            ++ran;
            const int status = RunOne(name);
            if (IsFinding(status)) {
                printf("the checker complains of %s\n", name.c_str());
                ++bad;
            }
        }
    }
    printf("the checker complains of %d of %d tests\n", bad, ran);
    return bad == 0 && ran > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (const char* const pattern = getenv("QX_EACH_TEST")) {
        return RunEach(pattern);
    }
    if (!testing::GTEST_FLAG(list_tests)) {
        Sandbox::Enter();
    }
    return RUN_ALL_TESTS();
}
