#include "LogPrinter.h"

#include "LogLineTime.h"
#include "Text.h"

#include <cstdio>

void LogPrinter::Show(const Answers::Value& line, Clock::time_point arrival) {
    const std::string stream = Answers::Text(line, "stream");
    if (!IsWanted(stream)) {
        return;
    }
    const std::string text = Answers::Text(line, "text");
    const std::string time = Answers::Text(line, "time");
    const bool isPartial = line.contains("partial") && Answers::Flag(line, "partial");
    if (_view.showsJson) {
        ShowOther(line);
        _shown += isPartial ? 0U : 1U;
        return;
    }
    const bool goesOn = _openStream == stream;
    if (!goesOn) {
        EndLine();
        _console.Write((_view.showsDelay ? DelayText(text, time, arrival) : "") +
                       (_view.showsTimes ? Printable(time) + " " : ""));
    }
    _console.Write(Fit(text));
    _openStream = stream;
    if (!isPartial) {
        EndLine();
        ++_shown;
    }
}

void LogPrinter::Show(std::string_view text) {
    _console.Write(Fit(text) + "\n");
    ++_shown;
}

void LogPrinter::ShowOther(const Answers::Value& message) {
    if (_view.showsJson) {
        const std::string text = QxNJson::json(message).dump();
        _console.Write((_console.IsTerminal() ? Printable(text) : text) + "\n");
    }
}

void LogPrinter::EndLine() {
    if (!_openStream.empty()) {
        _console.Write("\n");
        _openStream.clear();
    }
}

bool LogPrinter::IsWanted(const std::string& stream) const {
    // A terminal has only one stream, which is what the program shows.
    return _view.onlyStream.empty() || _view.onlyStream == (stream == "tty" ? "stdout" : stream);
}

std::string LogPrinter::DelayText(const std::string& text, const std::string& time,
                                  Clock::time_point arrival) const {
    const auto own = TimeOfLogLine(text);
    const auto written = own ? own : TimeOfLogLine(time);
    char delay[64];
    if (written) {
        const std::chrono::duration<double, std::milli> elapsed = arrival - *written;
        snprintf(delay, sizeof(delay), "%9.1f ms  ", elapsed.count());
    } else {
        snprintf(delay, sizeof(delay), "%9s     ", "?");
    }
    return delay;
}

std::string LogPrinter::Fit(std::string_view text) const {
    return _console.IsTerminal() ? WithColoursOnly(text) : std::string(text);
}
