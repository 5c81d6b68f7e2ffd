#include "ApiPath.h"
#include "Follow.h"
#include "Interruption.h"
#include "LineSplitter.h"
#include "LiveChannel.h"
#include "LogLineTime.h"
#include "LogPrinter.h"
#include "Text.h"
#include "Tool.h"

#include <algorithm>
#include <optional>

using Answers::Value;

namespace {

struct LogOptions {
    std::string container;
    std::string tail = "100";
    bool follows = false;
    LogView view;
};

/// The log of a container as it comes.
class FollowedLog : public Followed {
public:
    using TimePoint = LogPrinter::Clock::time_point;

    /// @param until  with a line of this time or later the log has been shown; nothing: when it ends
    FollowedLog(const LogOptions& options, const Console& console, std::optional<TimePoint> until = {})
        : _options(options), _console(console), _until(until), _printer(_options.view, console) {}

    std::string Target() const override {
        return _cursor.empty()
                   ? ApiPath({"containers", _options.container, "logs"}, {{"tail", _options.tail}})
                   : ApiPath({"containers", _options.container, "logs"}, {{"after", _cursor}});
    }

    Next Show(const Value& message) override {
        const std::string type = Answers::Text(message, "type");
        Next next = Next::GoOn;
        if (type == "lines") {
            next = ShowLines(Answers::Array(message, "lines"));
        } else if (type == "skipped") {
            ShowSkipped(message);
        } else if (type == "end") {
            next = ShowEnd(message);
        }
        // What a later daemon may send beside these is none of the log.
        _console.Flush();
        return next;
    }

private:
    Next ShowLines(const Value& lines) {
        const auto arrival = LogPrinter::Clock::now();
        bool isComplete = false;
        for (const Value& line : lines) {
            _printer.Show(line, arrival);
            _cursor = Answers::Text(line, "cursor");
            if (_printer.IsDone()) {
                return Next::Stop;
            }
            isComplete = isComplete || (_until && TimeOfLogLine(Answers::Text(line, "time")) >= _until);
        }
        if (isComplete) {
            _printer.EndLine();
            return Next::Stop;
        }
        return Next::GoOn;
    }

    void ShowSkipped(const Value& message) {
        const long long count = Answers::Number(message, "count");
        _printer.EndLine();
        _printer.ShowOther(message);
        if (!_options.view.showsJson) {
            _console.Flush();
            Tell(count < 0 ? "lines are missing here" : std::to_string(count) + " lines are missing here");
        }
    }

    Next ShowEnd(const Value& message) {
        const std::string code = Answers::Text(message, "code");
        const std::string reason = Answers::TextOrNone(message, "reason");
        _printer.EndLine();
        if (code == "podman" || code == "stopping") {
            return Next::ConnectAgain;
        }
        _printer.ShowOther(message);
        if (code == "error") {
            throw CtlError(ExitCode::Failed, "the log ended: " + (reason.empty() ? code : reason));
        }
        if (_options.follows && !_options.view.showsJson) {
            _console.Flush();
            Tell(_options.container + ": " + (reason.empty() ? code : reason));
        }
        return Next::Stop;
    }

    const LogOptions& _options;
    const Console& _console;
    const std::optional<TimePoint> _until;
    LogPrinter _printer;
    std::string _cursor;
};

/// Shows the log so far, as text.
int ShowText(const LogOptions& options, const Tool& tool) {
    LogPrinter printer(options.view, tool.console);
    LineSplitter splitter([&](std::string_view line) {
        printer.Show(line);
        return !printer.IsDone();
    });
    tool.Send(
        {.target = ApiPath({"containers", options.container, "logs"},
                           {{"tail", options.tail}, {"timestamps", options.view.showsTimes ? "true" : ""}}),
         .sink = [&](std::string_view bytes) { return splitter.Take(bytes); }});
    splitter.Finish();
    return ExitCode::Fine;
}

/// @return the time of the newest line; nothing: there is none
std::optional<LogPrinter::Clock::time_point> TimeOfNewestLine(const LogOptions& options, const Tool& tool) {
    const std::string text = tool.Send({.target = ApiPath({"containers", options.container, "logs"},
                                                          {{"tail", "1"}, {"timestamps", "true"}})})
                                 .body;
    if (text.find_first_not_of('\n') == std::string::npos) {
        return {};
    }
    const auto time = TimeOfLogLine(text);
    if (!time) {
        Answers::Malformed("a line of the log has no time");
    }
    return time;
}

/// Shows the log so far from the live one, which tells more of a line than the text does.
int ShowLines(const LogOptions& options, const Tool& tool) {
    const auto newest = TimeOfNewestLine(options, tool);
    if (newest && options.tail != "0") {
        FollowedLog log(options, tool.console, newest);
        Follow(tool.MakeEndpoint(), log);
    }
    return ExitCode::Fine;
}

int ShowLog(const LogOptions& options, const Tool& tool) {
    if (options.view.lines == 0) {
        return ExitCode::Fine;
    }
    if (options.follows) {
        Interruption::EndsWith(ExitCode::Fine);
        FollowedLog log(options, tool.console);
        Follow(tool.MakeEndpoint(), log);
        return ExitCode::Fine;
    }
    return options.view.showsJson || !options.view.onlyStream.empty() ? ShowLines(options, tool)
                                                                      : ShowText(options, tool);
}

/// @return what is wrong with a number of lines; empty when nothing is
std::string CheckTail(const std::string& tail) {
    constexpr size_t MostDigits = 7;
    const bool isNumber = !tail.empty() && tail.size() <= MostDigits &&
                          tail.find_first_not_of("0123456789") == std::string::npos;
    return isNumber || tail == "all" ? "" : "'" + tail + "' is neither a number of lines nor 'all'";
}

constexpr const char* Examples =
    "qxctl logs clock                     # the last 100 lines\n"
    "qxctl logs --tail all -t clock       # all lines, each with its time\n"
    "qxctl logs -f clock                  # live, until Ctrl-C\n"
    "qxctl logs -f --tail 0 --stderr clock\n"
    "qxctl logs --delay --tail 0 clock    # how long new lines take to arrive\n"
    "qxctl logs -f --json clock | jq -r .text";

}  // namespace

void AddLogsCommand(CLI::App& app, Tool& tool) {
    const auto options = std::make_shared<LogOptions>();
    const auto onlyStdout = std::make_shared<bool>(false);
    const auto onlyStderr = std::make_shared<bool>(false);
    CLI::App* const command = AddCommand(app, "logs", "Show the log of a container", Examples);
    AddArgument(command, "CONTAINER", options->container, "Name or id");
    command->add_flag("-f,--follow", options->follows, "Go on with new lines until the container ends");
    command
        ->add_option("--tail", options->tail,
                     "How many of the lines that are there; default 100. At most 5000 with -f, --json, "
                     "--stdout, --stderr")
        ->check(CLI::Validator(CheckTail, ""))
        ->type_name("N|all");
    command->add_flag("-t,--timestamps", options->view.showsTimes, "Before every line show its time");
    CLI::Option* const out = command->add_flag("--stdout", *onlyStdout, "Only the standard output");
    command->add_flag("--stderr", *onlyStderr, "Only the standard error output")->excludes(out);
    command->add_option("--lines", options->view.lines, "End after so many lines")->type_name("N");
    command->add_flag(
        "--delay", options->view.showsDelay,
        "Follow, and show how long lines took, from the time that they begin with or else Podman's");
    OnCommand(command, tool, [&tool, options, onlyStdout, onlyStderr] {
        options->follows = options->follows || options->view.showsDelay;
        options->view.showsJson = tool.json;
        options->view.onlyStream = *onlyStdout ? "stdout" : *onlyStderr ? "stderr" : "";
        return ShowLog(*options, tool);
    });
}
