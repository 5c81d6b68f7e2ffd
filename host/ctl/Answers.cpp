#include "Answers.h"

#include "CtlError.h"

using QxNJson::json;

void Answers::Malformed(std::string_view what) {
    throw CtlError(ExitCode::Failed, "the daemon's answer is not understood (" + std::string(what) +
                                         "); is it of another version? Compare with 'qxctl version'");
}

json Answers::Parse(std::string_view text, std::string_view what) {
    json value = json::parse(text);
    if (value.is_invalid()) {
        Malformed(std::string(what) + " is no JSON");
    }
    return value;
}

const Answers::Value& Answers::Member(const Value& object, const char* name) {
    if (!object.is_object() || !object.contains(name)) {
        Malformed(std::string("there is no '") + name + "'");
    }
    return object[name];
}

const Answers::Value& Answers::Array(const Value& object, const char* name) {
    const Value& member = Member(object, name);
    if (!member.is_array()) {
        Malformed(std::string("'") + name + "' is no list");
    }
    return member;
}

std::string Answers::Text(const Value& object, const char* name) {
    const Value& member = Member(object, name);
    if (!member.is_string()) {
        Malformed(std::string("'") + name + "' is no text");
    }
    return member.get<std::string>();
}

std::string Answers::TextOrNone(const Value& object, const char* name) {
    if (!object.is_object() || !object.contains(name) || object[name].is_null()) {
        return {};
    }
    return Text(object, name);
}

long long Answers::Number(const Value& object, const char* name) {
    const Value& member = Member(object, name);
    if (!member.is_number_integer()) {
        Malformed(std::string("'") + name + "' is no whole number");
    }
    return member.get<long long>();
}

bool Answers::Flag(const Value& object, const char* name) {
    const Value& member = Member(object, name);
    if (!member.is_boolean()) {
        Malformed(std::string("'") + name + "' is neither true nor false");
    }
    return member.get<bool>();
}
