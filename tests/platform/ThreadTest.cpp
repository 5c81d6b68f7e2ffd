#include "PlatformTest.h"
#include "QxNRtosAbstraction.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

using namespace PlatformTest;
using namespace QxNRtosAbstraction;
using Clock = std::chrono::steady_clock;

namespace {

long long millisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void* returnArgument(void* argument) { return argument; }

void* waitForFlag(void* argument) {
    const auto* const flag = static_cast<std::atomic<bool>*>(argument);
    while (!*flag) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

long threadCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); }

/// Lets every thread ask for more stack than there is.
void preventThreads() {
    ::pthread_attr_t tooMuchStack;
    ::pthread_attr_init(&tooMuchStack);
    ASSERT_EQ(::pthread_attr_setstacksize(&tooMuchStack, std::size_t{1} << 50), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&tooMuchStack), 0);
}

QxTThreadHandle start(QxTThreadFunction function, void* argument, const char* name = "test") {
    QxTThreadHandle handle = 0;
    EXPECT_TRUE(createThread(nullptr, &handle, 1, 5, name, function, argument, 0));
    return handle;
}

TEST(Thread, HandsItsResultToWhoeverJoinsIt) {
    int value = 0;
    void* result = nullptr;
    const QxTThreadHandle handle = start(returnArgument, &value);

    EXPECT_NE(handle, 0U);
    EXPECT_TRUE(joinThread(handle, &result, -1));
    EXPECT_EQ(result, &value);
}

TEST(Thread, IsJoinedWithoutInterestInItsResult) {
    EXPECT_TRUE(joinThread(start(returnArgument, nullptr), nullptr, 10000));
}

TEST(Thread, ShowsTheFirstFifteenBytesOfItsName) {
    char name[16] = {};
    const auto readName = [](void* argument) -> void* {
        ::pthread_getname_np(::pthread_self(), static_cast<char*>(argument), sizeof(name));
        return nullptr;
    };

    joinThread(start(readName, name, "PodmanServiceMonitor"), nullptr, -1);

    EXPECT_STREQ(name, "PodmanServiceMo");
}

TEST(Thread, FindsItsHandleWhereTheCreatorWantedIt) {
    QxTThreadHandle handle = 0;
    const auto readHandle = [](void* argument) -> void* {
        const auto* const stored = static_cast<QxTThreadHandle*>(argument);
        return *stored != 0 ? argument : nullptr;
    };

    ASSERT_TRUE(createThread(nullptr, &handle, 1, 5, "test", readHandle, &handle, 0));

    void* result = nullptr;
    EXPECT_TRUE(joinThread(handle, &result, -1));
    EXPECT_EQ(result, &handle);
}

TEST(Thread, StaysJoinableWhenTheWaitIsOver) {
    std::atomic<bool> flag = false;
    const QxTThreadHandle handle = start(waitForFlag, &flag);
    const auto begin = Clock::now();

    EXPECT_FALSE(joinThread(handle, nullptr, 50));

    EXPECT_GE(millisecondsSince(begin), 50);
    EXPECT_FALSE(joinThread(handle, nullptr, 0));
    flag = true;
    EXPECT_TRUE(joinThread(handle, nullptr, -1));
}

TEST(Thread, IsJoinedOnlyOnce) {
    const QxTThreadHandle handle = start(returnArgument, nullptr);
    ASSERT_TRUE(joinThread(handle, nullptr, -1));

    EXPECT_FALSE(joinThread(handle, nullptr, -1));
}

TEST(Thread, IsNotFoundUnderAnUnknownHandle) {
    EXPECT_FALSE(joinThread(0, nullptr, -1));
    EXPECT_FALSE(joinThread(4711, nullptr, -1));
}

TEST(Thread, IsNotFoundUnderTheHandleOfAnEarlierOne) {
    const QxTThreadHandle earlier = start(returnArgument, nullptr);
    joinThread(earlier, nullptr, -1);

    const QxTThreadHandle later = start(returnArgument, nullptr);

    EXPECT_NE(earlier, later);
    EXPECT_FALSE(joinThread(earlier, nullptr, 0));
    EXPECT_TRUE(joinThread(later, nullptr, -1));
}

TEST(Thread, IsJoinedByOneOfSeveralThatWait) {
    std::atomic<bool> flag = false;
    std::atomic<int> joined = 0;
    const QxTThreadHandle handle = start(waitForFlag, &flag);
    std::vector<std::thread> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back([&] { joined += joinThread(handle, nullptr, -1) ? 1 : 0; });
    }

    flag = true;
    for (std::thread& thread : waiting) {
        thread.join();
    }

    EXPECT_EQ(joined, 1);
}

TEST(Thread, CannotJoinItself) {
    static QxTThreadHandle handle = 0;
    const auto joinSelf = [](void* argument) -> void* {
        return joinThread(handle, nullptr, -1) ? argument : nullptr;
    };
    int value = 0;
    void* result = &value;

    ASSERT_TRUE(createThread(nullptr, &handle, 1, 5, "test", joinSelf, &value, 0));

    EXPECT_TRUE(joinThread(handle, &result, -1));
    EXPECT_EQ(result, nullptr);
}

TEST(Thread, MayEndByPthreadExit) {
    const auto leave = [](void* argument) -> void* { ::pthread_exit(argument); };
    int value = 0;
    void* result = nullptr;

    EXPECT_TRUE(joinThread(start(leave, &value), &result, 10000));

    EXPECT_EQ(result, &value);
}

TEST(Thread, ReportsWhyItCannotBeStarted) {
    const auto errors = newErrorList();
    QxTThreadHandle handle = 99;
    preventThreads();

    const bool started = createThread(errors.get(), &handle, 1, 5, "name", returnArgument, nullptr, 0);

    EXPECT_FALSE(started);
    EXPECT_EQ(handle, 99U);
    ASSERT_EQ(errors->getErrorCount(), 1U);
    EXPECT_THAT(texts(*errors)[0], testing::HasSubstr("'name': Resource temporarily unavailable"));
}

TEST(Thread, CanBeStartedAfterOneThatCouldNot) {
    ::pthread_attr_t usual;
    ::pthread_getattr_default_np(&usual);
    preventThreads();
    QxTThreadHandle handle = 0;
    ASSERT_FALSE(createThread(nullptr, &handle, 1, 5, "name", returnArgument, nullptr, 0));
    ASSERT_EQ(::pthread_setattr_default_np(&usual), 0);

    EXPECT_TRUE(joinThread(start(returnArgument, nullptr), nullptr, 10000));
}

TEST(Thread, IsNotStartedWithoutFunctionOrHandle) {
    const auto errors = newErrorList();
    QxTThreadHandle handle = 99;

    EXPECT_FALSE(createThread(errors.get(), &handle, 1, 5, "name", nullptr, nullptr, 0));
    EXPECT_FALSE(createThread(errors.get(), nullptr, 1, 5, "name", returnArgument, nullptr, 0));

    EXPECT_EQ(handle, 99U);
    EXPECT_EQ(errors->getErrorCount(), 2U);
}

TEST(Thread, LeavesNothingBehind) {
    joinThread(start(returnArgument, nullptr), nullptr, -1);
    const auto before = Sandbox::OpenDescriptors();
    const auto threadsBefore = threadCount();

    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(joinThread(start(returnArgument, nullptr), nullptr, -1));
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_EQ(threadCount(), threadsBefore);
}

TEST(Mutex, ExcludesOtherThreads) {
    QxCMutex mutex("test");
    int count = 0;
    const auto increment = [&] {
        for (int i = 0; i < 10000; ++i) {
            EXPECT_TRUE(mutex.lock(-1));
            ++count;
            mutex.unlock();
        }
    };
    std::thread other(increment);

    increment();
    other.join();

    EXPECT_EQ(count, 20000);
}

TEST(Mutex, IsNotHadWhileAnotherThreadHoldsIt) {
    QxCMutex mutex(nullptr);
    ASSERT_TRUE(mutex.lock(-1));
    bool tried = true;
    bool waited = true;
    long long wait = 0;

    std::thread([&] {
        tried = mutex.lock(0);
        const auto begin = Clock::now();
        waited = mutex.lock(50);
        wait = millisecondsSince(begin);
    }).join();

    EXPECT_FALSE(tried);
    EXPECT_FALSE(waited);
    EXPECT_GE(wait, 50);
    mutex.unlock();
}

TEST(Mutex, IsHadOnceTheOtherThreadGivesItBack) {
    QxCMutex mutex("test");
    ASSERT_TRUE(mutex.lock(0));
    bool had = false;
    std::thread other([&] {
        had = mutex.lock(10000);
        if (had) {
            mutex.unlock();
        }
    });

    mutex.unlock();
    other.join();

    EXPECT_TRUE(had);
    EXPECT_TRUE(mutex.lock(10));
    mutex.unlock();
}

}  // namespace
