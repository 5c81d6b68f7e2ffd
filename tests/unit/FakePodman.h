#pragma once

#include "Recording.h"
#include "Sandbox.h"

#include <algorithm>
#include <string>

/// A stand-in for Podman with a shell script for each of its tasks.
struct FakePodman {
    std::string start = {};                ///< podman start --all ...
    std::string stop = {};                 ///< podman stop --all ...
    std::string unixService = RunForever;  ///< the REST service on the Unix socket
    std::string tcpService = RunForever;   ///< the REST service on TCP

    /// Ends with the signal it gets.
    static constexpr const char* RunForever = "exec sleep 1000";
    /// Notes every SIGTERM in a file of its own and goes on; ends when the file "/end" appears.
    static constexpr const char* CountTerminations =
        "trap 'echo TERM >> /terminations' TERM; echo ready >> /ready; "
        "while [ ! -e /end ]; do sleep 0.02; done";

    void Install() const {
        Sandbox::InstallProgram("/bin/podman",
                                "case \"$1\" in\n"
                                "start) " +
                                    start +
                                    "\n;;\n"
                                    "stop) " +
                                    stop +
                                    "\n;;\n"
                                    "system) case \"$*\" in\n"
                                    "    *unix:*) " +
                                    unixService +
                                    "\n;;\n"
                                    "    *) " +
                                    tcpService +
                                    "\n;;\n"
                                    "    esac;;\n"
                                    "esac");
    }

    /// @return the command lines of all calls so far, in order
    static std::vector<std::string> CommandLines() {
        std::vector<std::string> lines;
        for (const Sandbox::ProgramCall& call : Sandbox::Calls()) {
            lines.push_back(call.CommandLine());
        }
        return lines;
    }

    /// Waits until the log holds a line.
    static bool Logged(const std::string& line) {
        return Sandbox::Eventually([&] {
            const auto lines = Recording::Logs();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    }

    static bool IsWatched() { return Logged("[INFO] Quolex Container Utils: Spawned Podman correctly"); }

    /// Waits until the monitor thread has come to its end.
    static bool MonitorEnded() {
        return Sandbox::Eventually([] { return !Recording::Events("clearMasterErrorList").empty(); });
    }
};
