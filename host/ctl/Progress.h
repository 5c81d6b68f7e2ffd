#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// A line on the standard error output that shows how work goes on, when that is a terminal. It is gone afterwards.
class Progress {
public:
    /// What takes such a line off a terminal.
    static constexpr char WipeLine[] = "\r\x1b[K";

    /// @param upload  what is done while bytes are sent, such as "Sending a.tar"
    /// @param work    what is done while there is nothing more to send, such as "Loading images"
    Progress(const std::string& upload, const std::string& work);
    explicit Progress(const std::string& work) : Progress({}, work) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { Finish(); }

    /// Draws the line anew, unless that was just done.
    /// @param total  bytes to send; 0: nothing, or nothing that would be worth a bar
    void Update(std::uint64_t sent, std::uint64_t total);

    /// Takes the line away, for good.
    void Finish();

    /// @return the line for this state, so that it fits into that many columns
    static std::string BarLine(const std::string& label, std::uint64_t sent, std::uint64_t total,
                               std::chrono::duration<double> elapsed, size_t columns);

private:
    using Clock = std::chrono::steady_clock;

    std::string LineFor(std::uint64_t sent, std::uint64_t total, Clock::time_point now);

    const std::string _upload;
    const std::string _work;
    bool _isShown;
    const Clock::time_point _start = Clock::now();
    Clock::time_point _lastDrawn{};
    unsigned int _frame = 0;
};
