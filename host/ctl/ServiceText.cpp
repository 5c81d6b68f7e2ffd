#include "ServiceText.h"

#include "Format.h"
#include "LogLineTime.h"
#include "Table.h"
#include "Text.h"

#include <array>
#include <chrono>

using Answers::Value;

namespace {

Style StyleOfState(const std::string& state) {
    if (state == "running") {
        return Style::Good;
    }
    return state == "failed" ? Style::Bad : Style::Warning;
}

/// @return such as ", 3 minutes ago"; empty when the clocks do not agree
std::string AgeText(const std::string& time) {
    const auto point = TimeOfLogLine(time);
    const auto now = std::chrono::system_clock::now();
    if (!point || *point > now) {
        return {};
    }
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - *point).count();
    return ", " + DurationText(static_cast<std::uint64_t>(age)) + " ago";
}

std::string RestartsText(const Value& restarts) {
    std::string policy = Answers::Text(restarts, "policy");
    if (policy == "never") {
        return policy;
    }
    std::string text = policy + ", " + std::to_string(Answers::Number(restarts, "inARow")) + " of at most " +
                       std::to_string(Answers::Number(restarts, "limit")) + " in a row";
    if (const std::string next = Answers::TextOrNone(restarts, "nextAt"); !next.empty()) {
        text += ", next at " + LocalTimeText(next);
    }
    return text;
}

/// @param known  the service's problem, which need not be told twice
Table::Cell PodmanCell(const Value& podman, const std::string& known) {
    if (Answers::Flag(podman, "answering")) {
        return {Answers::Text(podman, "version") + ", answers"};
    }
    const std::string problem = Answers::TextOrNone(podman, "problem");
    return {"does not answer" + (problem.empty() || problem == known ? "" : ": " + problem), Style::Warning};
}

struct Verdict {
    const char* word;
    const char* mark;
    const char* plural;
    Style style;
};

constexpr std::array<Verdict, 4> Verdicts{{{"ok", "✓ ok", "ok", Style::Good},
                                           {"warning", "! warning", "warnings", Style::Warning},
                                           {"error", "✗ error", "errors", Style::Bad},
                                           {"unknown", "? unknown", "unknown", Style::Faint}}};

size_t IndexOf(const std::string& word) {
    for (size_t i = 0; i < Verdicts.size(); ++i) {
        if (word == Verdicts[i].word) {
            return i;
        }
    }
    Answers::Malformed("a verdict that does not exist");
}

}  // namespace

std::string ServiceText(const Value& service, const Console& console) {
    const std::string state = Answers::Text(service, "state");
    const std::string problem = Answers::TextOrNone(service, "problem");
    const std::string startedAt = Answers::TextOrNone(service, "startedAt");
    const Value& settings = Answers::Member(service, "settings");
    const Value& restarts = Answers::Member(service, "restarts");
    const long long port = Answers::Number(settings, "tcpPort");
    Table table({{}, {}});
    table.Add({{"service"}, {state, StyleOfState(state)}});
    if (!problem.empty()) {
        table.Add({{"problem"}, {problem, StyleOfState(state)}});
    }
    if (!startedAt.empty()) {
        table.Add({{"started"}, {LocalTimeText(startedAt) + AgeText(startedAt)}});
    }
    table.Add({{"enabled"}, {Answers::Flag(service, "enabled") ? "yes" : "no"}});
    table.Add({{"Podman"}, PodmanCell(Answers::Member(service, "podman"), problem)});
    table.Add({{"TCP port"}, {port == 0 ? "none" : std::to_string(port)}});
    table.Add({{"cores"},
               {std::to_string(Answers::Number(settings, "cores")) + " of at most " +
                std::to_string(Answers::Number(settings, "maximumCores"))}});
    table.Add({{"restarts"}, {RestartsText(restarts)}});
    table.Add({{"daemon"}, {Answers::Text(service, "version")}});
    std::string text = table.Text(console);
    const Value& history = Answers::Array(restarts, "history");
    if (!history.empty()) {
        Table past({{"LOST"}, {"CAUSE"}});
        for (const Value& restart : history) {
            past.Add({{LocalTimeText(Answers::Text(restart, "time"))}, {Answers::Text(restart, "cause")}});
        }
        text += "\n" + past.Text(console);
    }
    return text;
}

std::string ServiceSummary(const Value& service, const Console& console) {
    const std::string state = Answers::Text(service, "state");
    return "The service is " + console.Styled(Printable(state), StyleOfState(state)) + " and " +
           (Answers::Flag(service, "enabled") ? "enabled" : "disabled") + ".\n";
}

std::string ChecksText(const Value& answer, const Console& console) {
    std::array<std::uint64_t, Verdicts.size()> counts{};
    Table table({{"VERDICT"}, {"ID"}, {"TITLE"}, {"FOUND"}});
    std::string remedies;
    for (const Value& check : Answers::Array(answer, "checks")) {
        const size_t index = IndexOf(Answers::Text(check, "verdict"));
        const std::string id = Answers::Text(check, "id");
        const std::string remedy = Answers::TextOrNone(check, "remedy");
        ++counts[index];
        table.Add({{Verdicts[index].mark, Verdicts[index].style},
                   {id},
                   {Answers::Text(check, "title")},
                   {Answers::Text(check, "found")}});
        if (index != 0 && !remedy.empty()) {
            remedies +=
                "  " + console.Styled(Printable(id), Verdicts[index].style) + ": " + Printable(remedy) + "\n";
        }
    }
    std::string summary;
    for (size_t i = 0; i < Verdicts.size(); ++i) {
        if (counts[i] > 0) {
            summary += (summary.empty() ? "" : ", ") + std::to_string(counts[i]) + " " +
                       (counts[i] == 1 ? Verdicts[i].word : Verdicts[i].plural);
        }
    }
    return table.Text(console) + (remedies.empty() ? "" : "\nWhat to do:\n" + remedies) + "\n" + summary +
           "\n";
}
