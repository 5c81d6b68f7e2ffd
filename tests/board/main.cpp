#include <gmock/gmock.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// Becomes a board that runs this program, as it is staged, with the same arguments.
[[noreturn]] void ContinueOnBoard(int argc, char** argv) {
    const char* suite = getenv("QX_BOARD_SUITE");
    std::vector<std::string> words{QX_BOARD_PROGRAM,
                                   "run",
                                   "--quiet",
                                   "--suite",
                                   suite != nullptr ? suite : "auto",
                                   "--bind",
                                   QX_STAGE_DIR ":/opt/qx:ro",
                                   "--env",
                                   "QX_ON_BOARD=1"};
    if (getenv("QX_UNDER_TIMER") != nullptr) {
        words.insert(words.end(), {"--env", "QX_UNDER_TIMER=1"});
    }
    words.insert(words.end(), {"--", "/opt/qx/bin/qx_board_tests"});
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    execv(QX_BOARD_PROGRAM, arguments.data());
    perror(QX_BOARD_PROGRAM);
    _exit(97);
}

bool IsListing(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--gtest_list_tests") {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (getenv("QX_ON_BOARD") == nullptr && !IsListing(argc, argv)) {
        ContinueOnBoard(argc, argv);
    }
    // The daemons that tests start are interrupted, and nothing else is.
    if (getenv("QX_UNDER_TIMER") != nullptr) {
        setenv("LD_PRELOAD", "/opt/qx/lib/libqx_timer_signal.so", 1);
        setenv("QX_TIMER_PROGRAMS", "qxcontainerd", 1);
        setenv("QX_TIMER_LIBRARY", "libQxContainerUtils.so", 1);
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
