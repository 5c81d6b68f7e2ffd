#pragma once

#include "QxNJson.h"

#include <string>
#include <string_view>

/// Reading what the daemon sent. What is missing or of another kind than it has to be is a CtlError.
namespace Answers {

/// A value inside of another one.
using Value = QxNJson::json::Base;

/// @param what  names the text in the message of the error
QxNJson::json Parse(std::string_view text, std::string_view what = "answer");

const Value& Member(const Value& object, const char* name);
const Value& Array(const Value& object, const char* name);
std::string Text(const Value& object, const char* name);
/// @return "" also for a member that is null or missing
std::string TextOrNone(const Value& object, const char* name);
long long Number(const Value& object, const char* name);
bool Flag(const Value& object, const char* name);

/// Ends the command because the daemon sent something that cannot be.
[[noreturn]] void Malformed(std::string_view what);

}  // namespace Answers
