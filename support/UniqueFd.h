#pragma once

#include <unistd.h>
#include <utility>

namespace QxNSupport {

/// The owner of one file descriptor; -1 owns none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            _fd = std::exchange(other._fd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const { return _fd; }
    bool IsOpen() const { return _fd >= 0; }

    /// Gives the descriptor up without closing it.
    int Release() { return std::exchange(_fd, -1); }

    /// Closes once: close(2) releases the descriptor also when it reports EINTR.
    void Reset() {
        if (_fd >= 0) {
            ::close(std::exchange(_fd, -1));
        }
    }

private:
    int _fd = -1;
};

}  // namespace QxNSupport
