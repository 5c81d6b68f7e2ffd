#include "ApiPath.h"
#include "Follow.h"
#include "Format.h"
#include "Interruption.h"
#include "LogLineTime.h"
#include "Table.h"
#include "Text.h"
#include "Tool.h"

#include <deque>
#include <string>
#include <unordered_set>

using Answers::Value;

namespace {

/// Most that the daemon gives at once.
constexpr const char* LargestTail = "10000";
constexpr size_t MostMessages = 10000;

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
    FollowedMessages(std::string tail, const Tool& tool) : _tail(std::move(tail)), _tool(tool) {}

    std::string Target() const override {
        return ApiPath({"messages"}, {{"tail", _shown.empty() ? _tail : LargestTail}});
    }

    Next Show(const Value& message) override {
        const std::string type = Answers::Text(message, "type");
        if (type == "messages") {
            for (const Value& each : Answers::Array(message, "messages")) {
                ShowNew(each);
            }
            _tool.console.Flush();
        }
        return type == "end" ? Next::ConnectAgain : Next::GoOn;
    }

    /// After a break all messages that are there come again.
    void OnConnected() override { _again = {_shown.begin(), _shown.end()}; }

private:
    void ShowNew(const Value& message) {
        // By all that they say: the board's clock may have been set back.
        std::string text = QxNJson::json(message).dump();
        const auto known = _again.find(text);
        if (known != _again.end()) {
            _again.erase(known);
            return;
        }
        _shown.push_back(std::move(text));
        if (_shown.size() > MostMessages) {
            _shown.pop_front();
        }
        if (_tool.json) {
            _tool.PrintText(_shown.back());
        } else {
            _tool.Print(LineText(message, _tool.console));
        }
    }

    const std::string _tail;
    const Tool& _tool;
    std::deque<std::string> _shown;
    std::unordered_multiset<std::string> _again;  ///< those of them that may still come again
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
        ->check(CLI::Range(0, 10000))
        ->type_name("N");
    OnCommand(command, tool, [&tool, options] {
        const std::string tail = std::to_string(options->tail);
        if (options->follows) {
            Interruption::EndsWith(ExitCode::Fine);
            FollowedMessages messages(tail, tool);
            Follow(tool.MakeEndpoint(), messages);
            return ExitCode::Fine;
        }
        return tool.Show({.target = ApiPath({"messages"}, {{"tail", tail}})},
                         [&](const Value& answer) { PrintMessages(tool, answer); });
    });
}
