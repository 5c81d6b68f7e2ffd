#pragma once

#include "CtlError.h"
#include "Endpoint.h"

#include <string>
#include <string_view>

/// @param status  of an HTTP answer that says no
/// @param body    problem details, when the daemon sent it
/// @return what to tell the user, with the exit code for it
CtlError Refusal(long status, std::string_view body);

/// @param problem      why there is no connection
/// @param systemError  errno of it; 0: it was something else
/// @return what to tell the user, with what to do
CtlError Unreachable(const Endpoint& endpoint, const std::string& problem, int systemError = 0);
