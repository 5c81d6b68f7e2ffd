#pragma once

#include "LogHub.h"
#include "QxNJson.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// A viewer and what it got.
class LogWatcher {
public:
    explicit LogWatcher(std::unique_ptr<LogViewer> viewer, size_t maxBytes = 65536)
        : _viewer(std::move(viewer)), _maxBytes(maxBytes) {}

    /// Takes the next message, waiting for it.
    /// @return an invalid value when none comes
    QxNJson::json Next() {
        for (;;) {
            if (const auto message = _viewer->Next(_maxBytes)) {
                return QxNJson::json::parse(*message);
            }
            if (_viewer->HasEnded() || !Wait()) {
                return QxNJson::json::parse("");
            }
        }
    }

    /// Takes messages until a number of lines is there or the log has ended.
    /// @return the lines; other messages are put between them as texts
    std::vector<QxNJson::json> Lines(size_t count) {
        std::vector<QxNJson::json> lines;
        while (lines.size() < count) {
            const QxNJson::json message = Next();
            if (message.is_invalid()) {
                break;
            }
            if (message["type"] == "lines") {
                for (const auto& line : message["lines"]) {
                    lines.emplace_back(line);
                }
            } else if (message["type"] != "start") {
                lines.push_back(message);
            }
        }
        return lines;
    }

    /// @return the texts of lines, and other messages in short: "[skipped 3]", "[exited exit code 1]"
    std::vector<std::string> Texts(size_t count = SIZE_MAX) {
        std::vector<std::string> texts;
        for (const QxNJson::json& line : Lines(count)) {
            if (line.contains("cursor")) {
                cursor = line["cursor"].get<std::string>();
                texts.push_back(line["text"].get<std::string>());
            } else if (line["type"] == "skipped") {
                texts.push_back("[skipped " + line["count"].dump() + "]");
            } else {
                texts.push_back("[" + line["code"].get<std::string>() + " " +
                                line["reason"].get<std::string>() + "]");
            }
        }
        return texts;
    }

    LogViewer& Viewer() { return *_viewer; }

    std::string cursor;  ///< of the last line

private:
    struct Signal {
        std::mutex mutex;
        std::condition_variable condition;
        bool isSet = false;
    };

    bool Wait() {
        const auto signal = std::make_shared<Signal>();
        _viewer->NotifyOnce([signal] {
            const std::lock_guard lock(signal->mutex);
            signal->isSet = true;
            signal->condition.notify_one();
        });
        std::unique_lock lock(signal->mutex);
        return signal->condition.wait_for(lock, std::chrono::seconds(60), [&] { return signal->isSet; });
    }

    std::unique_ptr<LogViewer> _viewer;
    size_t _maxBytes;
};
