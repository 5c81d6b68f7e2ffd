// Shows the log of a container as it comes out of the container service's WebSocket.

#include "LogLineTime.h"

#include <CLI/CLI.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using std::chrono::system_clock;

enum ExitCode : int {
    Ended = 0,
    NoLog = 1,
    BadUsage = 2,
};

constexpr const char* Help = R"(
Shows the log of a container live, from the container service on this machine.

Exit codes:
  0  the log has ended, or all lines that were asked for were shown
  1  there is no such log, or the service cannot be reached
  2  wrong options
)";

struct Options {
    std::string container;
    unsigned short port = 0;
    std::string tail = "100";
    unsigned long lines = std::numeric_limits<unsigned long>::max();
    bool showsDelay = false;
};

constexpr size_t LongestLine = 1 << 20;  ///< what is longer is shown in pieces

/// Shows messages as lines and counts them. A line may come in several messages; it is shown when it is complete.
class LinePrinter {
public:
    explicit LinePrinter(const Options& options) : _options(options) {}

    void Show(std::string_view message, system_clock::time_point arrival) {
        size_t length = 0;
        while (!IsDone() && (length = message.find('\n')) != std::string_view::npos) {
            _begun.append(message.substr(0, length));
            ShowBegun(arrival);
            message.remove_prefix(length + 1);
        }
        _begun.append(message);
        if (_begun.size() > LongestLine && !IsDone()) {
            ShowBegun(arrival);
        }
        std::fflush(stdout);
    }

    /// Shows what came of a line that never became complete.
    void ShowRest(system_clock::time_point arrival) {
        if (!_begun.empty() && !IsDone()) {
            ShowBegun(arrival);
            std::fflush(stdout);
        }
    }

    bool IsDone() const { return _shown >= _options.lines; }

private:
    void ShowBegun(system_clock::time_point arrival) {
        ShowLine(_begun, arrival);
        _begun.clear();
    }

    void ShowLine(const std::string& line, system_clock::time_point arrival) {
        ++_shown;
        if (_options.showsDelay) {
            if (const auto written = TimeOfLogLine(line)) {
                const std::chrono::duration<double, std::milli> delay = arrival - *written;
                std::printf("%9.1f ms  ", delay.count());
            } else {
                std::printf("%9s     ", "?");
            }
        }
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::putchar('\n');
    }

    const Options& _options;
    unsigned long _shown = 0;
    std::string _begun;  ///< the line whose end has not arrived
};

void Complain(const std::string& text) { std::fprintf(stderr, "qxlogs: %s\n", text.c_str()); }

ExitCode Follow(const Options& options) {
    asio::io_context io;
    websocket::stream<asio::ip::tcp::socket> stream(io);
    beast::get_lowest_layer(stream).connect({asio::ip::address_v4::loopback(), options.port});
    stream.handshake("127.0.0.1:" + std::to_string(options.port),
                     "/logs/" + options.container + "?tail=" + options.tail);
    LinePrinter printer(options);
    while (!printer.IsDone()) {
        beast::flat_buffer message;
        beast::error_code error;
        stream.read(message, error);
        const auto arrival = system_clock::now();
        if (error) {
            printer.ShowRest(arrival);
        }
        if (error == websocket::error::closed && stream.reason().code == websocket::close_code::normal) {
            return Ended;
        }
        if (error) {
            const std::string reason(stream.reason().reason.data(), stream.reason().reason.size());
            Complain(options.container + ": " + (reason.empty() ? error.message() : reason));
            return NoLog;
        }
        printer.Show({static_cast<const char*>(message.data().data()), message.size()}, arrival);
    }
    beast::error_code ignored;
    stream.close(websocket::close_code::normal, ignored);
    return Ended;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{Help};
    Options options;
    app.add_option("NAME", options.container, "Name or id of the container")->required();
    app.add_option("--port", options.port, "Port of the service's log server on this machine")->required();
    app.add_option("--tail", options.tail, "How many of the lines that are there already: a number, or all");
    app.add_option("--lines", options.lines, "End after so many lines");
    app.add_flag(
        "--delay", options.showsDelay,
        "Before every line show how long it took to arrive; the line has to begin with the time when it was "
        "written");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? Ended : BadUsage;
    }
    try {
        return Follow(options);
    } catch (const std::exception& error) {
        Complain(error.what());
        return NoLog;
    }
}
