#include "ApiPath.h"
#include "Follow.h"
#include "Format.h"
#include "Interruption.h"
#include "LogLineTime.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

#include <algorithm>
#include <deque>
#include <string>
#include <utility>
#include <vector>

using Answers::Value;

namespace {

/// Most that the daemon gives at once.
constexpr unsigned int LargestTail = 10000;
constexpr size_t MostCompared = 100;

struct Severity {
    std::string word;
    Style style;
};

Severity SeverityOf(const Value& message) {
    switch (const long long severity = Answers::Number(message, "severity")) {
        case 1:
            return {"info", Style::Plain};
        case 2:
            return {"warning", Style::Warning};
        case 3:
            return {"error", Style::Bad};
        default:
            return {std::to_string(severity), Style::Plain};
    }
}

std::string Padded(const std::string& text, size_t width) {
    return text + std::string(width - std::min(width, DisplayWidth(text)), ' ');
}

/// @return a message as one line, whose columns do not depend on what comes later
std::string LineText(const Value& message, const Console& console) {
    const Severity severity = SeverityOf(message);
    const std::string source = Printable(Answers::Text(message, "source")) + " " +
                               std::to_string(Answers::Number(message, "number"));
    return LocalTimeText(Answers::Text(message, "time")) + "  " +
           console.Styled(Padded(severity.word, 7), severity.style) + "  " + Padded(source, 18) + "  " +
           Printable(Answers::Text(message, "text")) + "\n";
}

/// Messages as they come.
class FollowedMessages : public Followed {
public:
    FollowedMessages(unsigned int tail, const Tool& tool) : _tail(tail), _tool(tool), _hidesNext(tail == 0) {}

    /// One at least, which tells what is new after a break.
    std::string Target() const override {
        return ApiPath({"messages"},
                       {{"tail", std::to_string(_hasBegun ? LargestTail : std::max(_tail, 1U))}});
    }

    Next Show(const Value& message) override {
        const std::string type = Answers::Text(message, "type");
        if (type == "messages") {
            ShowNew(Answers::Array(message, "messages"));
            _hasBegun = true;
            _tool.console.Flush();
        }
        return type == "end" ? Next::ConnectAgain : Next::GoOn;
    }

    /// After a break all messages that are there come again, in one answer.
    void OnConnected() override { _hasBreak = !_known.empty(); }

private:
    template <typename Messages>
    void ShowNew(const Messages& messages) {
        std::vector<std::string> texts;
        for (const Value& each : messages) {
            texts.push_back(QxNJson::json(each).dump());
        }
        size_t at = std::exchange(_hasBreak, false) ? BehindTheKnown(texts) : 0;
        for (const Value& each : messages) {
            if (at > 0) {
                --at;
                continue;
            }
            Remember(each);
            if (!std::exchange(_hidesNext, false)) {
                Print(each);
            }
        }
        _hidesNext = false;
    }

    /// By all that they say: the board's clock may have been set back.
    /// @return how many of them come up to the last one that is known; 0 when that is not among them
    size_t BehindTheKnown(const std::vector<std::string>& texts) const {
        for (size_t count = texts.size(); count > 0; --count) {
            // Several that say the same: as many lines before it have to be the same too.
            const size_t compared = std::min(count, _known.size());
            if (std::equal(texts.begin() + static_cast<std::ptrdiff_t>(count - compared),
                           texts.begin() + static_cast<std::ptrdiff_t>(count),
                           _known.end() - static_cast<std::ptrdiff_t>(compared))) {
                return count;
            }
        }
        return 0;
    }

    void Remember(const Value& message) {
        _known.push_back(QxNJson::json(message).dump());
        if (_known.size() > MostCompared) {
            _known.pop_front();
        }
    }

    void Print(const Value& message) const {
        if (_tool.json) {
            _tool.PrintText(_known.back());
        } else {
            _tool.Print(LineText(message, _tool.console));
        }
    }

    const unsigned int _tail;
    const Tool& _tool;
    std::deque<std::string> _known;
    bool _hidesNext;  ///< for it was there before
    bool _hasBegun = false;
    bool _hasBreak = false;  ///< since the last of them
};

void PrintMessages(const Tool& tool, const Value& answer) {
    Table table({{"TIME"}, {"SEVERITY"}, {"SOURCE"}, {"NUMBER", Table::Side::Right}, {"TEXT"}});
    for (const Value& message : Answers::Array(answer, "messages")) {
        const Severity severity = SeverityOf(message);
        table.Add({{LocalTimeText(Answers::Text(message, "time"))},
                   {severity.word, severity.style},
                   {Answers::Text(message, "source")},
                   {std::to_string(Answers::Number(message, "number"))},
                   {Answers::Text(message, "text")}});
    }
    tool.Print(table.Text(tool.console));
}

}  // namespace

void AddMessagesCommand(CLI::App& app, Tool& tool) {
    struct Options {
        unsigned int tail = 100;
        bool follows = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const command = AddCommand(app, "messages", "Show the messages for the user of the board",
                                         "qxctl messages --tail 20\n"
                                         "qxctl messages -f");
    command->add_flag("-f,--follow", options->follows,
                      "Go on with new messages until Ctrl-C; a broken connection is made again");
    command->add_option("--tail", options->tail, "How many of those that are there; default 100")
        ->check(CLI::Range(0U, LargestTail))
        ->type_name("N");
    OnCommand(command, tool, [&tool, options] {
        if (options->follows) {
            Interruption::EndsWith(ExitCode::Fine);
            FollowedMessages messages(options->tail, tool);
            Follow(tool.MakeEndpoint(), messages);
            return ExitCode::Fine;
        }
        return tool.Show({.target = ApiPath({"messages"}, {{"tail", std::to_string(options->tail)}})},
                         [&](const Value& answer) { PrintMessages(tool, answer); });
    });
}
