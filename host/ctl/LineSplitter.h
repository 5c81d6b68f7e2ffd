#pragma once

#include <functional>
#include <string>
#include <string_view>

/// Puts pieces of a text together to lines.
class LineSplitter {
public:
    /// A longer line is handed over in parts.
    static constexpr size_t LongestLine = 1024UL * 1024;

    /// @param take  takes a line without its line feed; returns whether it wants more
    explicit LineSplitter(std::function<bool(std::string_view)> take) : _take(std::move(take)) {}

    /// @return whether more is wanted
    bool Take(std::string_view bytes) {
        while (!_isDone && !bytes.empty()) {
            const size_t end = bytes.find('\n');
            const bool isWhole = end != std::string_view::npos;
            _line += bytes.substr(0, end);
            bytes.remove_prefix(isWhole ? end + 1 : bytes.size());
            if (isWhole || _line.size() > LongestLine) {
                _isDone = !_take(_line);
                _line.clear();
            }
        }
        return !_isDone;
    }

    /// Hands over a last line that has no line feed.
    void Finish() {
        if (!_isDone && !_line.empty()) {
            _take(_line);
        }
        _isDone = true;
    }

private:
    std::function<bool(std::string_view)> _take;
    std::string _line;
    bool _isDone = false;
};
