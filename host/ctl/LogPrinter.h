#pragma once

#include "Answers.h"
#include "Console.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

/// How the lines of a log are shown.
struct LogView {
    bool showsTimes = false;
    bool showsDelay = false;
    bool showsJson = false;
    std::string onlyStream;  ///< "stdout" or "stderr"; empty: both
    std::uint64_t lines = std::numeric_limits<std::uint64_t>::max();
};

/// Shows lines of a log and counts them.
class LogPrinter {
public:
    using Clock = std::chrono::system_clock;

    LogPrinter(const LogView& view, const Console& console) : _view(view), _console(console) {}

    /// Shows a line as the daemon sends it on a WebSocket.
    void Show(const Answers::Value& line, Clock::time_point arrival);
    /// Shows a line of text.
    void Show(std::string_view text);
    /// Shows another message of the daemon, when the user wants JSON.
    void ShowOther(const Answers::Value& message);

    /// Ends a line that did not end by itself.
    void EndLine();
    bool IsDone() const { return _shown >= _view.lines; }

private:
    bool IsWanted(const std::string& stream) const;
    std::string DelayText(const std::string& text, const std::string& time, Clock::time_point arrival) const;
    std::string Fit(std::string_view text) const;

    const LogView& _view;
    const Console& _console;
    std::uint64_t _shown = 0;
    std::string _openStream;  ///< whose line goes on in the next one; empty: there is none
};
