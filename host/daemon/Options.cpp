#include "daemon/Options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>

namespace {

constexpr int BadUsage = 2;

constexpr const char* Help =
    R"(Runs the container service of the board until SIGTERM or SIGINT, and serves it over HTTP:
on a Unix socket to members of a group, on TCP to whoever has a token (qxctl token create).

A board that cannot run containers is no reason to end: the daemon says why and waits to be told to try again.

Exit codes:
  0  stopped in order
  2  wrong options or configuration
  3  an address, the certificate or the tokens cannot be used
  5  the settings that options ask for cannot be written
  6  an error of the board's file system)";

constexpr const char* Configuration = "/etc/qxcontainerd/qxcontainerd.ini";

/// The page lies beside the program, as the installation puts it.
std::string DefaultPage() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path().parent_path() / "share/qxcontainerd/page").string();
}

std::string RefusePort(std::string& text) {
    unsigned int port = 0;
    if (!CLI::detail::lexical_cast(text, port) || port > 65535) {
        return "'" + text + "' is no port number";
    }
    return port == 80 || port == 111 ? "the container service starts nothing at all with port " + text
                                     : std::string();
}

/// Times are given in seconds.
void AddSeconds(CLI::App& app, const std::string& name, std::chrono::milliseconds& value,
                const std::string& help) {
    app.add_option_function<double>(
           name,
           [&value](double seconds) {
               value = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
           },
           help)
        ->check(CLI::Range(0.01, 1e6))
        ->type_name("SECONDS")
        ->default_str(CLI::detail::to_string(static_cast<double>(value.count()) / 1000));
}

void AddServerOptions(CLI::App& app, Options& options) {
    auto& server = options.server;
    app.add_option("--socket", server.socket, "Unix socket of the interface; empty for none")
        ->capture_default_str();
    app.add_option("--socket-group", server.socketGroup,
                   "Group that may use the Unix socket; root alone without it")
        ->capture_default_str();
    app.add_option("--listen", server.listen,
                   "TCP address ADDRESS:PORT; may be given several times. Others than loopback need a "
                   "certificate and a "
                   "token. Port 0 takes a free one; 'none' listens nowhere.")
        ->capture_default_str();
    app.add_option("--host", server.hosts,
                   "Name by which TCP clients may call this machine; may be given several times");
    app.add_option("--certificate", server.certificate,
                   "PEM file with the certificate chain: all TCP then speaks TLS");
    app.add_option("--key", server.key, "PEM file with the certificate's key");
    app.add_option("--tokens", options.tokens, "File in which the tokens are kept, hashed")
        ->capture_default_str();
    app.add_option("--page", server.page, "Directory of the web page; empty for none")->capture_default_str();
    app.add_option("--max-clients", server.clients, "Connections at a time")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    app.add_option("--max-upload", options.largestUpload,
                   "Longest upload in bytes; units such as 8GiB are understood")
        ->transform(CLI::AsSizeValue(false))
        ->capture_default_str();
}

void AddKeeperOptions(CLI::App& app, Options& options) {
    using Rule = RestartPolicy::Rule;
    auto& keeper = options.keeper;
    static const std::map<std::string, Rule> Rules{
        {"never", Rule::Never}, {"on-failure", Rule::OnFailure}, {"always", Rule::Always}};
    app.add_option("--restart", keeper.restart.rule,
                   "Whether the service is started again by itself: never; on-failure, when Podman is lost "
                   "while it runs; "
                   "always, also when the start that comes with the daemon fails")
        ->transform(CLI::CheckedTransformer(Rules))
        ->default_str("on-failure");
    AddSeconds(app, "--restart-delay", keeper.restart.delay,
               "Before the first restart; doubled for each further one");
    AddSeconds(app, "--restart-delay-max", keeper.restart.longest, "Delays do not grow beyond");
    app.add_option("--restart-limit", keeper.restart.limit,
                   "Restarts in a row after which the daemon gives up")
        ->capture_default_str();
    AddSeconds(app, "--restart-quiet", keeper.restart.quiet, "Running so long, Podman counts as sound again");
    AddSeconds(app, "--liveness-interval", keeper.interval, "Between two questions to Podman");
    AddSeconds(app, "--liveness-deadline", keeper.deadline, "For Podman's answer; then it counts as hanging");
    AddSeconds(app, "--start-deadline", keeper.startDeadline, "For Podman's first answer after a start");
}

}  // namespace

std::optional<int> ReadOptions(int argc, char** argv, Options& options) {
    options.server.socket = "/run/qxcontainerd/api.sock";
    options.server.socketGroup = "qxcontainerd";
    options.server.listen = {"127.0.0.1:8089"};
    options.server.page = DefaultPage();

    CLI::App app{Help, "qxcontainerd"};
    app.set_config("--config", Configuration, "INI file with any of these options, without their hyphens");
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.set_version_flag("--version", QX_DAEMON_VERSION);
    app.add_flag("--enable", options.enable, "Switch the container service on, also for later starts");
    app.add_option("--tcp-port", options.tcpPort,
                   "TCP port of Podman's own REST service; 0 for none. Kept in the settings.")
        ->check(CLI::Validator(RefusePort, "PORT"));
    app.add_option("--cores", options.cores, "Number of CPU cores for containers. Kept in the settings.");
    app.add_option(
        "--log-port", options.logPort,
        "Also serve raw logs, frame by frame as Podman sends them, to WebSocket clients of this machine on "
        "that TCP port; 0 takes a free one and tells which");
    app.add_option("--messages", options.messages, "The message manager's file")->capture_default_str();
    AddServerOptions(app, options);
    AddKeeperOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : BadUsage;
    }
    std::erase(options.server.listen, "none");
    return std::nullopt;
}
