#include "Progress.h"

#include "Format.h"
#include "Interruption.h"
#include "Text.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::chrono::milliseconds Interval{100};

bool CanDraw() {
    const char* const terminal = getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

size_t Columns() {
    constexpr size_t Usual = 80;
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : Usual;
}

}  // namespace

Progress::Progress(const std::string& upload, const std::string& work)
    : _upload(Printable(upload)), _work(Printable(work)), _isShown(CanDraw()) {
    if (_isShown) {
        Interruption::SetLineShown(true);
    }
}

void Progress::Finish() {
    if (_isShown) {
        fputs(WipeLine, stderr);
        Interruption::SetLineShown(false);
        _isShown = false;
    }
}

void Progress::Update(std::uint64_t sent, std::uint64_t total) {
    const Clock::time_point now = Clock::now();
    if (!_isShown || now - _lastDrawn < Interval) {
        return;
    }
    _lastDrawn = now;
    fputs((WipeLine + LineFor(sent, total, now)).c_str(), stderr);
}

std::string Progress::LineFor(std::uint64_t sent, std::uint64_t total, Clock::time_point now) {
    if (!_upload.empty() && sent < total) {
        return BarLine(_upload, sent, total, now - _start, Columns());
    }
    constexpr char Frames[] = {'|', '/', '-', '\\'};
    const char frame = Frames[_frame++ % sizeof(Frames)];
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - _start).count();
    return std::string(1, frame) + " " + _work + "  " + std::to_string(seconds) + " s";
}

std::string Progress::BarLine(const std::string& label, std::uint64_t sent, std::uint64_t total,
                              std::chrono::duration<double> elapsed, size_t columns) {
    const double share = total == 0 ? 0 : static_cast<double>(sent) / static_cast<double>(total);
    const double rate = elapsed.count() > 0 ? static_cast<double>(sent) / elapsed.count() : 0;
    char figures[100];
    snprintf(figures, sizeof(figures), " %3.0f %%  %s of %s  %s/s", share * 100, SizeText(sent).c_str(),
             SizeText(total).c_str(), SizeText(static_cast<std::uint64_t>(rate)).c_str());
    const size_t taken = DisplayWidth(label) + strlen(figures) + sizeof(" []") - 1;
    constexpr size_t ShortestBar = 5;
    constexpr size_t LongestBar = 40;
    // A terminal wraps a line that reaches its edge, and then it could not be wiped out.
    if (taken + ShortestBar >= columns) {
        return strlen(figures) < columns ? figures + 1 : "";
    }
    const size_t width = std::min(LongestBar, columns - taken - 1);
    const auto done = static_cast<size_t>(share * static_cast<double>(width));
    return label + " [" + std::string(done, '#') + std::string(width - done, '.') + "]" + figures;
}
