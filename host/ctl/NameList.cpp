#include "NameList.h"

#include "ApiPath.h"

#include <array>

using Answers::Value;

namespace {

/// Who presses the key waits for the answer.
constexpr long TimeoutMs = 2000;

struct Kind {
    const char* name;
    const char* resource;
    const char* list;
    const char* member;
};

constexpr std::array<Kind, 4> Kinds{{{"containers", "containers", "containers", "name"},
                                     {"projects", "projects", "projects", "file"},
                                     {"plugins", "plugins", "plugins", "fileName"},
                                     {"tokens", "tokens", "tokens", "name"}}};

bool IsHarmless(const std::string& name) {
    constexpr const char* Harmless = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._:/@+-";
    return !name.empty() && name[0] != '-' && name.find_first_not_of(Harmless) == std::string::npos;
}

std::string Line(const std::string& name) { return IsHarmless(name) ? name + "\n" : ""; }

std::string ImageNames(const Value& answer) {
    std::string names;
    for (const Value& image : Answers::Array(answer, "images")) {
        for (const Value& name : Answers::Array(image, "names")) {
            names += name.is_string() ? Line(name.get<std::string>()) : "";
        }
    }
    return names;
}

QxNJson::json Ask(const Tool& tool, const char* resource) {
    return tool.Send({.target = ApiPath({resource}), .timeoutMs = TimeoutMs}).Json();
}

}  // namespace

std::string NameList(const std::string& kind, const Tool& tool) {
    if (kind == "shells") {
        return "bash\nzsh\nfish\n";
    }
    if (kind == "images") {
        return ImageNames(Ask(tool, "images"));
    }
    std::string names;
    for (const Kind& each : Kinds) {
        if (kind == each.name) {
            const QxNJson::json answer = Ask(tool, each.resource);
            for (const Value& thing : Answers::Array(answer, each.list)) {
                names += Line(Answers::Text(thing, each.member));
            }
        }
    }
    return names;
}
