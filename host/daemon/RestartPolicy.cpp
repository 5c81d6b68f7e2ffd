#include "daemon/RestartPolicy.h"

#include <algorithm>

namespace {

constexpr size_t LongestHistory = 20;

}  // namespace

void RestartPolicy::Running(Clock::time_point time) {
    if (!_runningSince) {
        _runningSince = time;
    }
}

std::optional<std::chrono::milliseconds> RestartPolicy::Lost(Clock::time_point time, const std::string& cause,
                                                             bool hasRun) {
    if (_runningSince && time - *_runningSince >= _options.quiet) {
        _inARow = 0;
    }
    _runningSince.reset();
    _history.push_back({time, cause});
    if (_history.size() > LongestHistory) {
        _history.pop_front();
    }
    const bool isWanted = _options.rule == Rule::Always || (_options.rule == Rule::OnFailure && hasRun);
    if (!isWanted || _inARow >= _options.limit) {
        return std::nullopt;
    }
    std::chrono::milliseconds delay = _options.delay;
    for (unsigned doubled = 0; doubled < _inARow && delay < _options.longest; ++doubled) {
        delay *= 2;
    }
    ++_inARow;
    return std::min(delay, _options.longest);
}

void RestartPolicy::Reset() {
    _inARow = 0;
    _runningSince.reset();
}
