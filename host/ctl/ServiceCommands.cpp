#include "ApiPath.h"
#include "Format.h"
#include "Progress.h"
#include "ServiceText.h"
#include "Table.h"
#include "Tool.h"

#include <optional>

using Answers::Value;

namespace {

void AddStatus(CLI::App& app, Tool& tool) {
    CLI::App* const command =
        AddCommand(app, "status", "Tell how the container service is doing", "qxctl status");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"service"})},
                         [&](const Value& service) { tool.Print(ServiceText(service, tool.console)); });
    });
}

void AddAction(CLI::App& app, Tool& tool, const char* action, const char* description, const char* work) {
    CLI::App* const command = AddCommand(app, action, description, std::string("qxctl ") + action);
    OnCommand(command, tool, [&tool, action, work] {
        Progress progress(work);
        return tool.Show({.method = "POST", .target = ApiPath({"service", action}), .progress = &progress},
                         [&](const Value& service) { tool.Print(ServiceSummary(service, tool.console)); });
    });
}

struct SettingsChange {
    std::optional<int> tcpPort;
    std::optional<int> cores;

    std::string Json() const {
        QxNJson::json change = QxNJson::json::object();
        if (tcpPort) {
            change["tcpPort"] = *tcpPort;
        }
        if (cores) {
            change["cores"] = *cores;
        }
        return change.dump();
    }
};

void PrintSettings(const Tool& tool, const Value& service) {
    const Value& settings = Answers::Member(service, "settings");
    const long long port = Answers::Number(settings, "tcpPort");
    tool.Print("TCP port " + (port == 0 ? "none" : std::to_string(port)) + ", cores " +
               std::to_string(Answers::Number(settings, "cores")) +
               "; in effect after the next start of the service\n");
}

void AddSet(CLI::App& app, Tool& tool) {
    const auto change = std::make_shared<SettingsChange>();
    CLI::App* const command =
        AddCommand(app, "set", "Change settings; in effect after the next start of the service",
                   "qxctl set --cores 2\n"
                   "qxctl set --tcp-port 8443 --cores 1\n"
                   "qxctl set --tcp-port 0            # no TCP any more");
    command->add_option("--tcp-port", change->tcpPort, "Port of Podman's TCP service; 0: none")
        ->check(CLI::Range(0, 65535))
        ->type_name("N");
    command->add_option("--cores", change->cores, "Cores that containers get")
        ->check(CLI::Range(0, 4096))
        ->type_name("N");
    OnCommand(command, tool, [&tool, change] {
        if (!change->tcpPort && !change->cores) {
            throw CtlError(ExitCode::Usage, "say what to set: --tcp-port N, --cores N");
        }
        return tool.Show({.method = "PATCH",
                          .target = ApiPath({"service", "settings"}),
                          .contentType = "application/json",
                          .body = change->Json()},
                         [&](const Value& service) { PrintSettings(tool, service); });
    });
}

int JudgeChecks(const Value& answer) {
    const std::string verdict = Answers::Text(answer, "verdict");
    if (verdict == "ok") {
        return ExitCode::Fine;
    }
    if (verdict == "warning") {
        return ExitCode::Warnings;
    }
    if (verdict == "error") {
        return ExitCode::Errors;
    }
    Answers::Malformed("a verdict that does not exist");
}

void AddCheck(CLI::App& app, Tool& tool) {
    CLI::App* const command =
        AddCommand(app, "check", "Look at every condition of a working board, and tell what to do",
                   "qxctl check\n"
                   "qxctl check --json | jq -r '.checks[] | select(.verdict == \"error\") | .id'");
    OnCommand(command, tool, [&tool] {
        Progress progress("Checking the board");
        return tool.Show(
            {.target = ApiPath({"check"}), .progress = &progress},
            [&](const Value& answer) { tool.Print(ChecksText(answer, tool.console)); }, JudgeChecks);
    });
}

void PrintCores(const Tool& tool, const Value& answer) {
    Table cores({{"CORE", Table::Side::Right}, {"OWNER"}});
    for (const Value& core : Answers::Array(answer, "cores")) {
        const std::string owner = Answers::Text(core, "owner");
        cores.Add({{std::to_string(Answers::Number(core, "core"))},
                   {owner, owner == "containers" ? Style::Good : Style::Plain}});
    }
    const std::string effective = Answers::Text(answer, "effective");
    Table facts({{}, {}});
    facts.Add({{"configured"}, {std::to_string(Answers::Number(answer, "configured"))}});
    facts.Add({{"at most"}, {std::to_string(Answers::Number(answer, "maximum"))}});
    facts.Add({{"in effect"}, {effective.empty() ? "there is no CPU set" : effective}});
    tool.Print(cores.Text(tool.console) + "\n" + facts.Text(tool.console));
    const Value& strangers = Answers::Array(answer, "strangers");
    if (strangers.empty()) {
        return;
    }
    Table processes({{"PID", Table::Side::Right}, {"COMMAND"}});
    for (const Value& stranger : strangers) {
        processes.Add({{std::to_string(Answers::Number(stranger, "pid"))},
                       {Answers::Text(stranger, "command"), Style::Warning}});
    }
    tool.Print("\nOn the containers' cores, but of no container:\n" + processes.Text(tool.console));
}

void AddCores(CLI::App& app, Tool& tool) {
    CLI::App* const command = AddCommand(app, "cores", "Tell who has which core", "qxctl cores");
    OnCommand(command, tool, [&tool] {
        return tool.Show({.target = ApiPath({"cores"})},
                         [&](const Value& answer) { PrintCores(tool, answer); });
    });
}

void AddMetrics(CLI::App& app, Tool& tool) {
    CLI::App* const command = AddCommand(app, "metrics", "Show figures in the Prometheus text format",
                                         "qxctl metrics | grep restarts");
    OnCommand(command, tool, [&tool] {
        tool.PrintText(tool.Send({.target = ApiPath({"metrics"})}).body);
        return ExitCode::Fine;
    });
}

int ShowVersions(const Tool& tool) {
    // The tool's own version is told in any case: it says most when the daemon cannot be asked.
    if (!tool.json) {
        tool.Print("qxctl   " QXCTL_VERSION "\n");
        tool.console.Flush();
    }
    const std::string version = Answers::Text(tool.Send({.target = ApiPath({"service"})}).Json(), "version");
    if (tool.json) {
        const QxNJson::json versions{{"qxctl", QXCTL_VERSION}, {"daemon", version}};
        tool.PrintText(versions.dump());
    } else {
        tool.PrintText("daemon  " + version);
    }
    return ExitCode::Fine;
}

void AddVersion(CLI::App& app, Tool& tool) {
    CLI::App* const command =
        AddCommand(app, "version", "Tell the versions of qxctl and of the daemon", "qxctl version");
    OnCommand(command, tool, [&tool] { return ShowVersions(tool); });
}

}  // namespace

void AddServiceCommands(CLI::App& app, Tool& tool) {
    AddStatus(app, tool);
    AddAction(app, tool, "enable", "Let the service start when the board starts", "Enabling the service");
    AddAction(app, tool, "disable", "Let the service not start any more when the board starts",
              "Disabling the service");
    AddAction(app, tool, "start", "Start the service", "Starting the service");
    AddAction(app, tool, "stop", "Stop the service and all containers", "Stopping the service");
    AddSet(app, tool);
    AddCheck(app, tool);
    AddCores(app, tool);
    AddMetrics(app, tool);
    AddVersion(app, tool);
}
