#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

/// @return a text as it may stand in an address
std::string Escaped(std::string_view text);

/// @param segments  as they are; what cannot be one, such as "..", is a CtlError
/// @param query     names and values as they are; a name without a value is left out
/// @return the target of a request, such as "/api/v1/containers/clock/logs?tail=100"
std::string ApiPath(std::initializer_list<std::string_view> segments,
                    std::initializer_list<std::pair<std::string_view, std::string_view>> query = {});
