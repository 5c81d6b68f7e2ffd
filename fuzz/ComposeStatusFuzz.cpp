// Any bytes as the tool's container lists before and after a command.

#include "PlainJson.h"
#include "Support.h"
#include "compose/ComposeStatus.h"
#include "tests/unit/NaiveCompose.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

using Fuzz::Require;
using NaiveCompose::Containers;
using QxNJson::json;

namespace {

constexpr int Create = 3;

/// The tool's lines as the elements of one array; a line feed at the very end begins no further one.
std::string ArrayOfLines(const std::string& text) {
    std::istringstream lines(text);
    std::string array;
    const char* separator = "";
    for (std::string line; std::getline(lines, line); separator = ",") {
        array += separator + line;
    }
    return "[" + array + "]";
}

/// @return whether the text is a list; everything else is a parse error, or a number beyond all bounds
bool Read(const std::string& toolOutput, json& list) {
    const std::string text = QxNCompose::StatusArrayText(toolOutput);
    Require(text == ArrayOfLines(toolOutput));
    const auto plain = Fuzz::ReadJson<json::Base>(text);
    try {
        list = json::parse(text, true);
    } catch (const json::parse_error&) {
        Require(plain.is_discarded());
        return false;
    } catch (const json::out_of_range& error) {
        constexpr int NumberOverflow = 406;
        Require(error.id == NumberOverflow && plain.is_discarded());
        return false;
    }
    Require(list.is_array() && static_cast<const json::Base&>(list) == plain);
    return true;
}

/// @return whether every element is a container
bool ReadContainers(const json& list, Containers& containers) {
    for (const auto& element : list) {
        if (!element.is_object() || !element.contains("Name") || !element.contains("State") ||
            !element["Name"].is_string() || !element["State"].is_string()) {
            return false;
        }
        containers.emplace_back(element["Name"].get<std::string>(), element["State"].get<std::string>());
    }
    return true;
}

/// @param status   what the caller is told
/// @param message  the beginning of what is said
void CheckOutcome(const QxNCompose::Outcome& outcome, int code, const char* status,
                  const std::string& message, const json& containers) {
    Require(outcome.code == code && outcome.result.size() == 3);
    Require(outcome.result["Status"] == status);
    Require(outcome.result["Message"].get<std::string>().starts_with(message));
    Require(outcome.result["Containers"] == containers);
}

void CheckOutcomeOf(int cmdType, int transition, const json& reported) {
    const QxNCompose::Outcome outcome = QxNCompose::OutcomeOf(cmdType, "moved", transition, reported);
    if (transition == 1) {
        CheckOutcome(outcome, 8, "Error", "No containers created for unknown reason!", json::array());
    } else if (transition == 3) {
        CheckOutcome(outcome, 7, "Success", "Command executed successfully, but no containers were moved.",
                     json::array());
    } else {
        CheckOutcome(outcome, cmdType == Create ? 1 : 0, "Success", "Containers moved successfully.",
                     reported);
    }
}

/// Lists of containers, and nothing else, before and after.
void CheckAgainstNaive(int cmdType, const std::string& expected, const Containers& before,
                       const Containers& after, int transition, const json& reported) {
    const NaiveCompose::Verdict naive = NaiveCompose::Compare(cmdType, expected, before, after);
    Containers told;
    Require(ReadContainers(reported, told));
    Require(transition == naive.transition && told == naive.reported);
}

void CheckProjectName(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    if (const size_t extension = name.rfind('.'); extension != 0 && name != "..") {
        name = name.substr(0, extension);
    }
    Require(QxNCompose::ProjectNameOf(path) == name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The first byte chooses command and expected state; the next zero byte parts the two lists.
    if (size == 0) {
        return 0;
    }
    const int cmdType = data[0] % 6;
    const char* const states[] = {"running", "exited", "created", ""};
    const char* expected = states[data[0] / 6 % 4];
    const std::string text(data + 1, data + size);
    const size_t parting = text.find('\0');
    const std::string first = text.substr(0, parting);
    const std::string second = parting == std::string::npos ? std::string() : text.substr(parting + 1);
    CheckProjectName(first);
    json before;
    json after;
    if (!Read(first, before) || !Read(second, after)) {
        return 0;
    }
    Containers then;
    Containers now;
    const bool areContainers = ReadContainers(before, then) && ReadContainers(after, now);
    json reported = json::array();
    try {
        const int transition = QxNCompose::CompareStates(cmdType, expected, before, after, reported);
        Require(reported.empty() == (transition == 1 || transition == 3));
        if (areContainers) {
            CheckAgainstNaive(cmdType, expected, then, now, transition, reported);
        }
        CheckOutcomeOf(cmdType, transition, reported);
    } catch (const json::type_error&) {
        Require(!areContainers);
    }
    Containers told;
    Require(reported.size() <= before.size() + after.size() && ReadContainers(reported, told));
    return 0;
}
