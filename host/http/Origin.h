#pragma once

#include <string_view>

namespace QxNHttp {

/// @param authority  value of a Host header: a host, with or without a port
/// @return the host without the port; empty when it is malformed
std::string_view HostOf(std::string_view authority);

/// @return whether two names of hosts are the same; letters of either case are
bool IsSameHost(std::string_view left, std::string_view right);

/// @return whether the host is this machine by one of its loopback names
bool IsLoopbackName(std::string_view host);

/// @param origin  value of an Origin header
/// @return whether a page of that origin was loaded from the address that the request was sent to. Browsers send it
///         with everything that changes something and with every WebSocket; pages of others must not use our cookie.
bool IsSameOrigin(std::string_view origin, std::string_view authority, bool isTls);

}  // namespace QxNHttp
