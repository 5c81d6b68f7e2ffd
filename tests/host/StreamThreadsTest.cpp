#include "api/StreamThreads.h"

#include "Sandbox.h"
#include "tests/crp/LimitedMemory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <atomic>
#include <new>
#include <optional>
#include <thread>

namespace {

TEST(StreamThreads, RunAsManyAsTheyMay) {
    std::atomic<bool> mayEnd{false};
    std::atomic<int> running{0};
    StreamThreads threads(2);
    const auto stream = [&] {
        ++running;
        Sandbox::Eventually([&] { return mayEnd.load(); });
        --running;
    };

    EXPECT_TRUE(threads.Run(stream));
    EXPECT_TRUE(threads.Run(stream));
    EXPECT_FALSE(threads.Run(stream));
    EXPECT_TRUE(Sandbox::Eventually([&] { return running == 2; }));

    mayEnd = true;
    EXPECT_TRUE(Sandbox::Eventually([&] { return threads.Run(stream); }));
}

TEST(StreamThreads, AreWaitedForAtTheEnd) {
    std::atomic<bool> hasEnded{false};
    std::optional<StreamThreads> threads(std::in_place, 1);
    threads->Run([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        hasEnded = true;
    });
    threads.reset();
    EXPECT_TRUE(hasEnded);
}

TEST(StreamThreads, SurviveAStreamThatRunsOutOfMemory) {
    StreamThreads threads(1);
    EXPECT_TRUE(threads.Run([] { throw std::bad_alloc(); }));
    EXPECT_TRUE(Sandbox::Eventually([&] { return threads.Run([] {}); }));
}

TEST(StreamThreads, AreRefusedWhenThereAreNone) {
    if (!LimitedMemory::IsPossible) {
        GTEST_SKIP() << "cannot run here: a sanitizer ends the process when it gets no memory";
    }
    StreamThreads threads(1);
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    const rlimit tight{0, before.rlim_max};
    setrlimit(RLIMIT_AS, &tight);  // no room for a stack
    bool isRun = true;
    isRun = threads.Run([] {});
    setrlimit(RLIMIT_AS, &before);

    EXPECT_FALSE(isRun);
    EXPECT_TRUE(threads.Run([] {})) << "the place is free again";
}

}  // namespace
