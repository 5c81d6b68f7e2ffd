// What a host does with a running service, for the demonstration: lists the plugins, takes a compose project
// through its life and prints the answers as they came.

#include "QxCContainer.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

namespace {

using QxNContainer::QxCContainer;
using QxNJson::json;

void Print(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

bool PodmanAnswers(QxCContainer& service) {
    for (int attempt = 0; attempt < 300; ++attempt) {
        if (service.ExecutePodmanRequest("/libpod/_ping", QxCCurlHandler::Get, {}, {}, false).httpCode ==
            200) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

void ListPlugins(QxCContainer& service) {
    const json listing = service.listPlugins();
    for (const auto& plugin : listing["plugins"]) {
        Print("  " + plugin["fileName"].get<std::string>() + ": " + plugin["name"].get<std::string>() + " " +
              plugin["version"].get<std::string>() + ", priority " +
              std::to_string(plugin["initPriority"].get<int>()) + ", from the " +
              plugin["directory"].get<std::string>() + " directory, " +
              (plugin["isLoaded"].get<bool>() ? "loaded" : "not loaded"));
    }
}

/// @return whether every operation came out as it should
bool RunProject(QxCContainer& service, const char* file) {
    struct Operation {
        const char* name;
        int (QxCContainer::*run)(const char*, json&);
        int success;
    };
    bool ok = true;
    for (const Operation& operation : {Operation{"create", &QxCContainer::CreateCompose, 1},
                                       Operation{"start", &QxCContainer::StartCompose, 0},
                                       Operation{"stop", &QxCContainer::StopCompose, 0},
                                       Operation{"remove", &QxCContainer::RemoveCompose, 0}}) {
        json result;
        const int code = (service.*operation.run)(file, result);
        Print("  " + std::string(operation.name) + ": code " + std::to_string(code) + ", " + result.dump());
        ok = ok && code == operation.success;
    }
    return ok;
}

int Run(const char* composeFile) {
    QxCContainer& service = QxCContainer::GetInstance();
    if (!service.init() || !service.Start()) {
        Print("the service did not start; see the log file");
        return 1;
    }
    Print("\nPlugins, as the service lists them");
    ListPlugins(service);
    bool ok = PodmanAnswers(service);
    Print("\nA compose project of two services, with the answers as they came");
    ok = RunProject(service, composeFile) && ok;
    service.Stop();
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc > 1 ? argv[1] : "demo.yaml");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "operations: %s\n", error.what());
        return 1;
    }
}
