#include "http/Background.h"

#include "Sandbox.h"

#include <gtest/gtest.h>
#include <atomic>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_future.hpp>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace asio = boost::asio;

using QxNHttp::Event;
using QxNHttp::InBackground;
using QxNHttp::InBackgroundWithin;
using std::chrono::milliseconds;
using std::chrono::seconds;
template <typename T>
using Task = asio::awaitable<T>;

namespace {

/// A loop with coroutines, and a thread for what blocks.
class Background : public testing::Test {
protected:
    /// Runs a coroutine to its end.
    /// @return its result
    template <typename T, typename Function>
    T Run(Function function) {
        auto result = asio::co_spawn(io, std::move(function), asio::use_future);
        io.restart();
        io.run();
        return result.get();
    }

    /// Keeps the thread busy until the gate is opened.
    void Occupy() {
        asio::post(pool, [this] { gate.get_future().wait(); });
    }

    asio::io_context io{1};
    asio::thread_pool pool{1};
    std::promise<void> gate;
};

TEST_F(Background, GivesTheResultBackHere) {
    const auto here = std::this_thread::get_id();
    const std::string text = Run<std::string>([&]() -> Task<std::string> {
        std::thread::id there;
        const auto work = [&] {
            there = std::this_thread::get_id();
            return std::string("result");
        };
        std::string result = co_await InBackground(pool, work);
        EXPECT_NE(there, here);
        EXPECT_EQ(std::this_thread::get_id(), here);
        co_return result;
    });
    EXPECT_EQ(text, "result");
}

TEST_F(Background, DoesNotHoldUpTheLoop) {
    bool hasTurned = false;
    asio::post(io, [&] {
        hasTurned = true;
        gate.set_value();
    });
    Run<void>([&]() -> Task<void> {
        const auto work = [&] { gate.get_future().wait(); };
        co_await InBackground(pool, work);
    });
    EXPECT_TRUE(hasTurned);
}

TEST_F(Background, BringsExceptionsAlong) {
    EXPECT_THROW(Run<void>([&]() -> Task<void> {
                     const auto work = [] { throw std::out_of_range("far"); };
                     co_await InBackground(pool, work);
                 }),
                 std::out_of_range);
    EXPECT_THROW(Run<void>([&]() -> Task<void> {
                     const auto work = []() -> int { throw std::out_of_range("far"); };
                     co_await InBackgroundWithin(pool, seconds(20), work);
                 }),
                 std::out_of_range);
}

/// What it uses may belong to who waits.
TEST_F(Background, IsWaitedForAlsoAfterACancellation) {
    asio::cancellation_signal cancel;
    std::promise<void> hasBegun;
    std::atomic<bool> isOver{false};
    auto waiting = asio::co_spawn(
        io,
        [&]() -> Task<void> {
            const auto work = [&] {
                hasBegun.set_value();
                gate.get_future().wait();
                isOver = true;
            };
            co_await InBackground(pool, work);
            asio::steady_timer more(io, seconds(20));
            co_await more.async_wait(asio::use_awaitable);
        },
        asio::bind_cancellation_slot(cancel.slot(), asio::use_future));
    std::thread loop([&] { io.run(); });
    hasBegun.get_future().wait();
    asio::post(io, [&] { cancel.emit(asio::cancellation_type::all); });
    EXPECT_EQ(waiting.wait_for(milliseconds(200)), std::future_status::timeout);
    gate.set_value();
    loop.join();
    EXPECT_TRUE(isOver);
    EXPECT_THROW(waiting.get(), boost::system::system_error) << "what comes after it does not run";
}

TEST_F(Background, GivesTheResultBackWithinTheDeadline) {
    const auto result =
        Run<std::optional<std::unique_ptr<int>>>([&]() -> Task<std::optional<std::unique_ptr<int>>> {
            const auto work = [] { return std::make_unique<int>(5); };
            co_return co_await InBackgroundWithin(pool, seconds(20), work);
        });
    ASSERT_TRUE(result);
    EXPECT_EQ(**result, 5);
}

TEST_F(Background, IsLeftToItselfAfterTheDeadline) {
    const auto mine = std::make_shared<int>(5);
    std::weak_ptr<int> theirs = mine;
    const auto result = Run<std::optional<int>>([&]() -> Task<std::optional<int>> {
        auto work = [this, copy = mine] {
            gate.get_future().wait();
            return *copy;
        };
        co_return co_await InBackgroundWithin(pool, milliseconds(50), std::move(work));
    });
    EXPECT_FALSE(result);
    EXPECT_GT(theirs.use_count(), 1) << "still at work";
    gate.set_value();
    pool.join();
    EXPECT_EQ(theirs.use_count(), 1);
    io.restart();
    io.run();
}

TEST_F(Background, IsLeftToItselfWhenWhoWaitsIsCancelled) {
    asio::cancellation_signal cancel;
    auto waiting = asio::co_spawn(
        io,
        [&]() -> Task<std::optional<int>> {
            const auto work = [this] {
                gate.get_future().wait();
                return 5;
            };
            co_return co_await InBackgroundWithin(pool, seconds(100), work);
        },
        asio::bind_cancellation_slot(cancel.slot(), asio::use_future));
    io.poll();
    cancel.emit(asio::cancellation_type::terminal);
    io.run();
    EXPECT_EQ(waiting.get(), std::nullopt) << "without waiting for the deadline or the end";
    gate.set_value();
}

TEST_F(Background, IsLeftToItselfAlsoWhenItFailsLater) {
    const auto result = Run<std::optional<int>>([&]() -> Task<std::optional<int>> {
        const auto work = [this]() -> int {
            gate.get_future().wait();
            throw std::runtime_error("too late");
        };
        co_return co_await InBackgroundWithin(pool, milliseconds(50), work);
    });
    EXPECT_FALSE(result);
    gate.set_value();
    pool.join();
    io.restart();
    EXPECT_NO_THROW(io.run());
}

/// An event with someone who counts how often it wakes him.
class Events : public testing::Test {
protected:
    /// Waits as often as told, and then ends.
    Task<void> Wait(int times) {
        for (int at = 0; at < times; ++at) {
            co_await event.Wait();
            ++awakenings;
        }
    }

    asio::io_context io{1};
    Event event{io.get_executor()};
    int awakenings = 0;
};

TEST_F(Events, WakeEverybodyUp) {
    for (int at = 0; at < 3; ++at) {
        asio::co_spawn(io, Wait(1), asio::use_future);
    }
    io.poll();
    EXPECT_EQ(awakenings, 0);
    event.Notify();
    io.run();
    EXPECT_EQ(awakenings, 3);
}

TEST_F(Events, WakeUpOnceForEachTime) {
    asio::co_spawn(io, Wait(3), asio::use_future);
    for (int at = 1; at <= 3; ++at) {
        io.poll();
        EXPECT_EQ(awakenings, at - 1);
        event.Notify();
        io.poll();
        EXPECT_EQ(awakenings, at);
    }
}

TEST_F(Events, AreNotKeptForLater) {
    event.Notify();
    io.poll();
    io.restart();
    asio::co_spawn(io, Wait(1), asio::use_future);
    io.poll();
    EXPECT_EQ(awakenings, 0);
    event.Notify();
    io.run();
}

TEST_F(Events, MayComeFromAnyThread) {
    std::thread notifying([&] {
        Sandbox::Eventually([&] {
            event.Notify();
            return io.stopped();
        });
    });
    asio::co_spawn(io, Wait(50), asio::use_future);
    io.run();
    notifying.join();
    EXPECT_EQ(awakenings, 50);
}

TEST_F(Events, EndWithAnErrorForWhoIsCancelled) {
    asio::cancellation_signal cancel;
    auto cancelled =
        asio::co_spawn(io, Wait(1), asio::bind_cancellation_slot(cancel.slot(), asio::use_future));
    asio::co_spawn(io, Wait(1), asio::use_future);
    io.poll();
    cancel.emit(asio::cancellation_type::terminal);
    io.poll();
    EXPECT_THROW(cancelled.get(), boost::system::system_error);
    EXPECT_EQ(awakenings, 0) << "the other one waits";
    event.Notify();
    io.run();
    EXPECT_EQ(awakenings, 1);
}

TEST(DiskThreads, AreOne) {
    std::atomic<int> atOnce{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};
    for (int at = 0; at < 5; ++at) {
        asio::post(QxNHttp::DiskThread(), [&] {
            most = std::max(most.load(), ++atOnce);
            std::this_thread::sleep_for(milliseconds(20));
            --atOnce;
            ++done;
        });
    }
    EXPECT_TRUE(Sandbox::Eventually([&] { return done == 5; }));
    EXPECT_EQ(most, 1);
}

}  // namespace
