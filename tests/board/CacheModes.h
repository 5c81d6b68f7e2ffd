#pragma once

#include "BoardTest.h"

#include <atomic>
#include <set>
#include <string>
#include <thread>

namespace OnBoard {

inline constexpr const char* WriteCache = "/sys/block/sda/queue/write_cache";

/// Watches the disk's cache mode from another thread.
class CacheModes {
public:
    CacheModes()
        : _thread([this] {
              while (!_mayEnd) {
                  _seen.insert(ReadFile(WriteCache));
                  std::this_thread::sleep_for(std::chrono::microseconds(200));
              }
          }) {}

    std::set<std::string> Seen() {
        _mayEnd = true;
        _thread.join();
        return _seen;
    }

private:
    std::atomic<bool> _mayEnd{false};
    std::set<std::string> _seen;
    std::thread _thread;
};

}  // namespace OnBoard
