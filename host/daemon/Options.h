#pragma once

#include "daemon/ServiceKeeper.h"
#include "http/Server.h"

#include <cstdint>
#include <optional>
#include <string>

/// What the daemon is told by its configuration file and its command line.
struct Options {
    QxNHttp::ServerOptions server;
    ServiceKeeper::Options keeper;
    std::string tokens = "/etc/qxcontainerd/tokens.json";
    std::string messages = "/run/quolex/messages.jsonl";
    std::uint64_t largestUpload = 16ULL << 30;
    bool enable = false;
    std::optional<unsigned> tcpPort;
    std::optional<unsigned> cores;
};

/// Reads the command line and the configuration file.
/// @return the exit code when the daemon is to end at once, after a help text or wrong options
std::optional<int> ReadOptions(int argc, char** argv, Options& options);
