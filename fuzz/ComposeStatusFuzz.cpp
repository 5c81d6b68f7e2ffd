// Any bytes as the tool's container lists before and after a command.

#include "Support.h"
#include "compose/ComposeStatus.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

using Fuzz::Require;
using QxNJson::json;

namespace {

/// @return whether the text is a list; everything else is a parse error, or a number beyond all bounds
bool Read(const std::string& toolOutput, json& list) {
    try {
        list = json::parse(QxNCompose::StatusArrayText(toolOutput), true);
    } catch (const json::parse_error&) {
        return false;
    } catch (const json::out_of_range& error) {
        constexpr int NumberOverflow = 406;
        Require(error.id == NumberOverflow);
        return false;
    }
    Require(list.is_array());
    return true;
}

void CheckReport(const json& reported) {
    Require(reported.is_array());
    for (const auto& container : reported) {
        Require(container.size() == 2 && container["Name"].is_string() && container["State"].is_string());
    }
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
    json before;
    json after;
    if (!Read(first, before) || !Read(second, after)) {
        return 0;
    }
    json reported = json::array();
    try {
        const int result = QxNCompose::CompareStates(cmdType, expected, before, after, reported);
        Require(result >= 1 && result <= 5);
        Require(reported.empty() == (result == 1 || result == 3));
    } catch (const json::type_error&) {
    }
    Require(reported.size() <= before.size() + after.size());
    CheckReport(reported);
    return 0;
}
