#pragma once

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>

namespace Fuzz {

/// The rule for JSON in another way than the product's: what is nested deeper than 500 levels is none, and neither is what
/// has a NUL.
/// @return a discarded value for what is no JSON
template <typename Json = nlohmann::json>
Json ReadJson(const std::string& text) {
    constexpr int MaxDepth = 500;
    int levels = 0;
    Json value = Json::parse(
        text,
        [&](int depth, typename Json::parse_event_t event, const Json&) {
            if (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start) {
                levels = std::max(levels, depth + 1);
            }
            return true;
        },
        false);
    const bool hasNul = std::count(text.begin(), text.end(), '\0') > 0;
    return hasNul || levels > MaxDepth ? Json(Json::value_t::discarded) : value;
}

}  // namespace Fuzz
