#include "Interruption.h"
#include "Text.h"
#include "Tool.h"

#include <curl/curl.h>
#include <csignal>
#include <cstdio>
#include <exception>

namespace {

constexpr const char* Description =
    "Operates the container service of a board, through its daemon qxcontainerd.\n"
    "'qxctl COMMAND --help' tells more of a command.";

constexpr const char* Footer = R"(Environment:
  QXCTL_SOCKET  path of the daemon's socket, when --socket is not given
  QXCTL_TOKEN   token for --address, when --token-file is not given
  NO_COLOR      when it is not empty, there are no colours
  TZ            place whose time is shown

Exit codes:
  0    fine
  1    the daemon refused, an operation failed, or its answer is not understood
  2    wrong usage
  3    the daemon cannot be reached
  4    not allowed: a token is missing, wrong or has too few rights
  5    there is no such thing
  10   check: there are warnings
  11   check: there are errors
  130  interrupted; with -f, Ctrl-C is the normal end and the code is 0

Examples:
  qxctl status
  qxctl check
  qxctl logs -f clock
  qxctl compose put demo.yaml && qxctl compose create demo.yaml
  qxctl --address https://board:8443 --token-file panel.token --ca board.crt ps)";

void AddGlobalOptions(CLI::App& app, Tool& tool) {
    app.add_option("--socket", tool.connection.socket,
                   std::string("Unix socket of the daemon; default: ") + DefaultSocket)
        ->type_name("PATH");
    app.add_option("--address", tool.connection.address,
                   "Ask over the network instead: https://HOST:PORT, or http://127.0.0.1:PORT")
        ->type_name("URL");
    app.add_option("--token-file", tool.connection.tokenFile, "File with the token for --address")
        ->type_name("FILE");
    app.add_option("--ca", tool.connection.ca, "Certificates to trust, for --address")->type_name("FILE");
    app.add_flag("--json", tool.json,
                 "Print the daemon's JSON as it came; live data as one object a line. Texts stay texts");
    app.set_version_flag("--version", "qxctl " QXCTL_VERSION, "Print the version of qxctl");
}

int Run(int argc, char** argv) {
    CLI::App app(Description, "qxctl");
    Tool tool;
    app.require_subcommand(1);
    app.footer(Footer);
    AddGlobalOptions(app, tool);
    AddServiceCommands(app, tool);
    AddContainerCommands(app, tool);
    AddLogsCommand(app, tool);
    AddImageCommands(app, tool);
    AddComposeCommands(app, tool);
    AddPluginCommands(app, tool);
    AddMessagesCommand(app, tool);
    AddTokenCommands(app, tool);
    AddCompletionCommands(app, tool);
    try {
        app.parse(argc, argv);
    } catch (const CLI::RequiredError& error) {
        // The parser only counts the commands that it knows.
        const std::vector<std::string> unknown = app.remaining();
        if (!unknown.empty() && app.get_subcommands().empty()) {
            Tell("there is no command '" + Printable(unknown.front()) + "'; see qxctl --help");
            return ExitCode::Usage;
        }
        app.exit(error);
        return ExitCode::Usage;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitCode::Fine : ExitCode::Usage;
    }
    Interruption::EndsWith(ExitCode::Interrupted);
    try {
        const int exitCode = tool.command();
        tool.console.Flush();
        return exitCode;
    } catch (const CtlError&) {
        // What was there before it failed.
        tool.console.Flush();
        throw;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Who started the tool may have it ignored, and then an editor could not be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    try {
        return Run(argc, argv);
    } catch (const CtlError& error) {
        Tell(error.what());
        return error.GetExitCode();
    } catch (const std::exception& error) {
        Tell(error.what());
        return ExitCode::Failed;
    }
}
