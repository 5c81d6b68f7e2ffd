#pragma once

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>

namespace Fuzz {

/// @return how deep brackets are nested in what is no JSON
inline int DepthOf(const std::string& text) {
    int depth = 0;
    int deepest = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '"') {
            while (++at < text.size() && text[at] != '"') {
                at += text[at] == '\\' ? 1U : 0U;
            }
        } else if (std::string("[{").find(text[at]) != std::string::npos) {
            deepest = std::max(deepest, ++depth);
        } else if (std::string("]}").find(text[at]) != std::string::npos) {
            --depth;
        }
    }
    return deepest;
}

/// The rule for JSON in another way than the product's: what is nested deeper than 500 levels is none.
/// @return a discarded value for what is no JSON
inline nlohmann::json ReadJson(const std::string& text) {
    using Json = nlohmann::json;
    constexpr int MaxDepth = 500;
    int levels = 0;
    Json value = Json::parse(
        text,
        [&](int depth, Json::parse_event_t event, const Json&) {
            if (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start) {
                levels = std::max(levels, depth + 1);
            }
            return true;
        },
        false);
    // The parser takes a NUL for the end; what is behind it counts all the same.
    levels = std::max(levels, DepthOf(text.substr(std::min(text.find('\0'), text.size()))));
    return levels > MaxDepth ? Json(Json::value_t::discarded) : value;
}

}  // namespace Fuzz
