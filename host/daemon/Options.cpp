#include "daemon/Options.h"

#include "http/Origin.h"
#include "http/Tokens.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <map>

namespace {

constexpr int BadUsage = 2;
constexpr int BadTokens = 3;

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

constexpr const char* SampleHead =
    R"(# Configuration of the container service's daemon, read from /etc/qxcontainerd/qxcontainerd.ini.
# Each option of the command line may stand here; the command line goes before this file. Values that are commented out
# are the defaults. An option that is unknown here is an error: it may be a misspelt one.
# After a change: systemctl restart qxcontainerd. Containers stop and start with it.
)";

constexpr const char* Configuration = "/etc/qxcontainerd/qxcontainerd.ini";

/// The page lies beside the program, as the installation puts it.
std::string DefaultPage() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path().parent_path() / "share/qxcontainerd/page").string();
}

/// @return the text as lines of a comment
std::string Comment(std::string text) {
    constexpr size_t LineLength = 116;
    std::string lines;
    while (text.size() > LineLength) {
        const size_t blank = text.rfind(' ', LineLength);
        lines += "# " + text.substr(0, blank) + "\n";
        text.erase(0, blank + 1);
    }
    return lines + "# " + text + "\n";
}

/// @return a configuration file with every option and what it is for
std::string SampleConfiguration(const CLI::App& app) {
    std::string sample = SampleHead;
    for (const CLI::Option* const option : app.get_options()) {
        if (!option->get_configurable()) {
            continue;
        }
        std::string value = option->get_default_str();
        if (option->get_expected_min() == 0) {
            value = "false";
        } else if (value.size() > 2 && value.starts_with('[')) {
            value = value.substr(1, value.size() - 2);
        }
        sample +=
            "\n" + Comment(option->get_description()) + "#" + option->get_single_name() + "=" + value + "\n";
    }
    return sample;
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
    app.add_option("--page", server.page,
                   "Directory of the web page, by default beside the program; empty for none")
        ->default_str("/usr/share/qxcontainerd/page");
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

/// @return what cannot be meant; empty when all is well
std::string Contradiction(const QxNHttp::ServerOptions& server) {
    if (server.certificate.empty() != server.key.empty()) {
        return "a certificate and its key belong together; give both --certificate and --key, or none";
    }
    for (const std::string& host : server.hosts) {
        if (QxNHttp::HostOf(host) != host) {
            return "--host takes a name without a port, not '" + host + "'";
        }
    }
    return {};
}

/// @return the exit code
int MakeToken(const Options& options, const std::string& name, bool mayAct) {
    std::error_code ignored;
    if (std::filesystem::is_socket(options.server.socket, ignored)) {
        std::fprintf(stderr,
                     "qxcontainerd: the daemon runs, and would not know the token; qxctl token create makes "
                     "one it knows. "
                     "(It does not run? Then remove %s.)\n",
                     options.server.socket.c_str());
        return BadTokens;
    }
    if (!QxNHttp::IsFileName(name)) {
        std::fputs("qxcontainerd: the name of a token is letters, digits, dots, hyphens and underscores\n",
                   stderr);
        return BadUsage;
    }
    try {
        QxNHttp::Tokens tokens(options.tokens);
        std::puts(tokens.Make(name, mayAct ? QxNHttp::Right::Act : QxNHttp::Right::Look).c_str());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qxcontainerd: %s\n", error.what());
        return BadTokens;
    }
}

}  // namespace

std::optional<int> ReadOptions(int argc, char** argv, Options& options) {
    options.server.socket = "/run/qxcontainerd/api.sock";
    options.server.socketGroup = "qxcontainerd";
    options.server.listen = {"127.0.0.1:8089"};
    options.server.page = DefaultPage();

    CLI::App app{Help, "qxcontainerd"};
    app.set_config("--config", Configuration, "INI file with any of these options, without their hyphens");
    // Brackets belong to addresses, not to lists.
    app.get_config_formatter_base()->arrayBounds('\x02', '\x03');
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.get_config_ptr()->configurable(false);
    app.get_help_ptr()->configurable(false);
    app.set_version_flag("--version", QX_DAEMON_VERSION)->configurable(false);
    std::string newToken;
    bool mayAct = false;
    app.add_option("--make-token", newToken,
                   "Make a token of this name, print it and end; for a daemon that cannot start without one")
        ->configurable(false);
    app.add_flag("--act", mayAct, "The token of --make-token may act as well as look")->configurable(false);
    bool printsSample = false;
    app.add_flag("--print-config", printsSample, "Print a configuration file with every option, and end")
        ->configurable(false);
    app.add_flag("--enable", options.enable, "Switch the container service on, also for later starts");
    app.add_option("--tcp-port", options.tcpPort,
                   "TCP port of Podman's own REST service; 0 for none. Kept in the settings.")
        ->check(CLI::Validator(RefusePort, "PORT"));
    app.add_option("--cores", options.cores, "Number of CPU cores for containers. Kept in the settings.");
    app.add_option("--messages", options.messages, "The message manager's file")->capture_default_str();
    AddServerOptions(app, options);
    AddKeeperOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : BadUsage;
    }
    if (printsSample) {
        std::fputs(SampleConfiguration(app).c_str(), stdout);
        return 0;
    }
    if (app.count("--make-token") > 0) {
        return MakeToken(options, newToken, mayAct);
    }
    std::erase(options.server.listen, "none");
    for (std::string& host : options.server.hosts) {
        // Brackets around a whole value are those of a list to the parser.
        if (std::count(host.begin(), host.end(), ':') > 1 && host.front() != '[') {
            host.insert(0, "[").append("]");
        }
    }
    const std::string problem = Contradiction(options.server);
    if (!problem.empty()) {
        std::fprintf(stderr, "qxcontainerd: %s\n", problem.c_str());
        return BadUsage;
    }
    return std::nullopt;
}
