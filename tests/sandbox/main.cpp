#include "Sandbox.h"

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
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

/// Runs each test in a process of its own, forked from this one. Under a memory checker, which translates the program,
/// this is many times faster than to start the program for each test. A test that fails there is no finding: programs that
/// cannot be started, for one, are not reported under it.
/// @param pattern  of the names, as in a shell
/// @return 1 when the checker, a signal or the sandbox has ended a test
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
            // A test ends with 0 or 1, the checker with a code of its own, and a sandbox in which a signal or a lack of
            // something ended the test with others.
            if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
                printf("did not come to an end of its own: %s\n", name.c_str());
                ++bad;
            }
        }
    }
    printf("%d of %d tests did not come to an end of their own\n", bad, ran);
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
