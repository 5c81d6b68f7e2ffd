#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>

/// Whether and when Podman is started again after it ended by itself or stopped answering.
///
/// The waiting time doubles from one restart to the next; after a time of quiet everything begins anew. Pure
/// computation.
class RestartPolicy {
public:
    using Clock = std::chrono::system_clock;

    enum class Rule {
        Never,
        OnFailure,  ///< when it had been running
        Always,     ///< also when the start that came with the daemon failed
    };

    struct Options {
        Rule rule = Rule::OnFailure;
        std::chrono::milliseconds delay{1000};     ///< before the first restart
        std::chrono::milliseconds longest{60000};  ///< delays do not grow beyond
        unsigned limit = 5;                       ///< restarts in a row after which nothing is tried any more
        std::chrono::milliseconds quiet{300000};  ///< running so long, Podman counts as sound again
    };

    struct Loss {
        Clock::time_point time;
        std::string cause;
    };

    explicit RestartPolicy(const Options& options) : _options(options) {}

    /// Podman answers again, since `time`.
    void Running(Clock::time_point time);

    /// Podman is lost, without anybody having asked for it.
    /// @param hasRun  whether it had been running
    /// @return how long to wait before the restart; nothing when there is to be none
    std::optional<std::chrono::milliseconds> Lost(Clock::time_point time, const std::string& cause,
                                                  bool hasRun);

    /// Somebody started or stopped the service by hand: what was is forgotten, but for the history.
    void Reset();

    const Options& Rules() const { return _options; }
    unsigned InARow() const { return _inARow; }
    /// @return the newest last, at most 20
    const std::deque<Loss>& History() const { return _history; }

private:
    const Options _options;
    unsigned _inARow = 0;
    std::optional<Clock::time_point> _runningSince;
    std::deque<Loss> _history;
};
