#include "Refusal.h"

#include "QxNJson.h"

#include <cerrno>
#include <cstring>

namespace {

int ExitCodeFor(long status) {
    switch (status) {
        case 401:
        case 403:
            return ExitCode::NotAllowed;
        case 404:
            return ExitCode::NotFound;
        default:
            return ExitCode::Failed;
    }
}

std::string DetailOf(std::string_view body) {
    const QxNJson::json problem = QxNJson::json::parse(body);
    for (const char* name : {"detail", "title"}) {
        if (problem.is_object() && problem.contains(name) && problem[name].is_string() &&
            !problem[name].empty()) {
            return problem[name].get<std::string>();
        }
    }
    return {};
}

std::string AdviceFor(const Endpoint& endpoint, int systemError) {
    if (!endpoint.IsLocalSocket()) {
        return "Is the address right, and does the daemon listen there? --ca FILE names certificates to "
               "trust.";
    }
    if (systemError == EACCES || systemError == EPERM) {
        return "Run qxctl as root or as a member of the socket's group.";
    }
    return "Is qxcontainerd running? When its socket is elsewhere, say --socket PATH or set QXCTL_SOCKET.";
}

}  // namespace

CtlError Refusal(long status, std::string_view body) {
    std::string text = DetailOf(body);
    if (text.empty()) {
        text = "the daemon refused with HTTP status " + std::to_string(status);
    }
    if (status == 401) {
        text += " (a token is given with --token-file FILE or in QXCTL_TOKEN)";
    }
    return {ExitCodeFor(status), text, status};
}

CtlError Unreachable(const Endpoint& endpoint, const std::string& problem, int systemError) {
    const std::string reason = systemError != 0 ? strerror(systemError) : problem;
    return {ExitCode::Unreachable, "cannot reach the daemon at " + endpoint.Name() + ": " + reason + "\n" +
                                       AdviceFor(endpoint, systemError)};
}
