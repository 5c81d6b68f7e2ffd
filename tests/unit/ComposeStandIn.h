#pragma once

#include "QxNContainerPaths.h"
#include "QxNJson.h"
#include "Sandbox.h"

#include <filesystem>
#include <string>
#include <vector>

/// A stand-in for docker-compose: tells one list of containers before the first command and another one after
/// it.
struct ComposeStandIn {
    std::string before = {};       ///< output of the status query before
    std::string after = {};        ///< output of the status query after
    std::string command = {};      ///< script of the command itself
    std::string queryBefore = {};  ///< script that follows the output of the query before
    std::string queryAfter = {};   ///< script that follows the output of the query after

    void Install() const {
        Sandbox::WriteFile("/before", before);
        Sandbox::WriteFile("/after", after);
        std::filesystem::remove("/commanded");
        Sandbox::InstallProgram("/bin/docker-compose",
                                "case \"$*\" in\n"
                                "*' ps -a --format json') if [ -e /commanded ]; then cat /after\n" +
                                    queryAfter + "\nelse cat /before\n" + queryBefore +
                                    "\nfi;;\n"
                                    "*) : > /commanded\n" +
                                    command + "\n;;\nesac");
    }

    /// @return the tool's list of containers from a short form: "a:running b:exited"
    static std::string Lines(const std::string& shortForm) {
        std::string lines;
        std::string word;
        for (const char c : shortForm + " ") {
            if (c != ' ') {
                word += c;
            } else if (!word.empty()) {
                const size_t colon = word.find(':');
                lines += R"({"Name":")" + word.substr(0, colon) + R"(","State":")" + word.substr(colon + 1) +
                         "\"}\n";
                word.clear();
            }
        }
        return lines;
    }

    /// @return the command lines of all calls so far, in order
    static std::vector<std::string> CommandLines() {
        std::vector<std::string> lines;
        for (const Sandbox::ProgramCall& call : Sandbox::Calls()) {
            lines.push_back(call.CommandLine());
        }
        return lines;
    }

    static std::string FilePath(const std::string& name) {
        return QxNContainer::QxNContainerPaths::COMPOSE_FILES_PATH + name;
    }

    static void ProvideFile(const std::string& name) { Sandbox::WriteFile(FilePath(name), "services: {}\n"); }
};

/// @return an operation's result; the containers in short form
inline QxNJson::json ResultObject(const char* status, const std::string& message,
                                  const std::string& containers = {}) {
    QxNJson::json result = QxNJson::json::object();
    result["Status"] = status;
    result["Message"] = message;
    result["Containers"] = QxNJson::json::parse("[]");
    std::string lines = ComposeStandIn::Lines(containers);
    while (!lines.empty()) {
        result["Containers"].push_back(QxNJson::json::parse(lines.substr(0, lines.find('\n'))));
        lines.erase(0, lines.find('\n') + 1);
    }
    return result;
}
