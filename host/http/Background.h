#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace QxNHttp {

/// Runs something that blocks on another thread and goes on here with its result; exceptions come along.
template <typename Function>
boost::asio::awaitable<std::invoke_result_t<Function>> InBackground(boost::asio::thread_pool& pool,
                                                                    Function function) {
    using Result = std::invoke_result_t<Function>;
    co_return co_await boost::asio::co_spawn(
        pool, [&function]() -> boost::asio::awaitable<Result> { co_return function(); },
        boost::asio::use_awaitable);
}

/// The same for something that may never come back: after the deadline it is left to itself.
/// @param function  owns what it uses
/// @return nothing after the deadline
template <typename Function>
boost::asio::awaitable<std::optional<std::invoke_result_t<Function>>> InBackgroundWithin(
    boost::asio::thread_pool& pool, std::chrono::steady_clock::duration deadline, Function function) {
    struct Shared {
        explicit Shared(const boost::asio::any_io_executor& executor) : timer(executor) {}
        boost::asio::steady_timer timer;
        std::optional<std::invoke_result_t<Function>> result;
        std::exception_ptr error;
    };
    const auto executor = co_await boost::asio::this_coro::executor;
    const auto shared = std::make_shared<Shared>(executor);
    shared->timer.expires_after(deadline);
    boost::asio::post(pool, [shared, executor, function = std::move(function)]() mutable {
        std::optional<std::invoke_result_t<Function>> result;
        std::exception_ptr error;
        try {
            result.emplace(function());
        } catch (...) {
            error = std::current_exception();
        }
        boost::asio::post(executor, [shared, result = std::move(result), error]() mutable {
            shared->result = std::move(result);
            shared->error = error;
            shared->timer.cancel();
        });
    });
    boost::system::error_code ignored;
    co_await shared->timer.async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
    if (shared->error) {
        std::rethrow_exception(shared->error);
    }
    co_return std::move(shared->result);
}

/// Something that many wait for. Belongs to the thread of its executor, but for Notify().
class Event {
public:
    explicit Event(const boost::asio::any_io_executor& executor)
        : _timer(std::make_shared<boost::asio::steady_timer>(executor,
                                                             boost::asio::steady_timer::time_point::max())) {}

    /// Waits for the next Notify().
    /// @throws boost::system::system_error when whoever waits is cancelled, because its client has gone
    boost::asio::awaitable<void> Wait() {
        boost::system::error_code ignored;
        co_await _timer->async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
        // A variable of its own: GCC 12 loses temporaries in conditions that suspend.
        const boost::asio::cancellation_state state = co_await boost::asio::this_coro::cancellation_state;
        if (state.cancelled() != boost::asio::cancellation_type::none) {
            throw boost::system::system_error(boost::asio::error::operation_aborted);
        }
    }

    /// Wakes everybody up. May be called from any thread.
    void Notify() const {
        boost::asio::post(_timer->get_executor(), [timer = _timer] { timer->cancel(); });
    }

private:
    std::shared_ptr<boost::asio::steady_timer> _timer;
};

/// The thread that writes what clients upload, and removes files.
boost::asio::thread_pool& DiskThread();

}  // namespace QxNHttp
