#pragma once

#include "QxCComposeFileHandler.h"
#include "QxNContainerPaths.h"

#include <string>
#include <utility>
#include <vector>

/// Reaches the steps of the compose operations one by one.
struct ComposeFileHandlerTest {
    /// A result code and the text that came with it.
    using Result = std::pair<int, std::string>;

    QxCComposeFileHandler handler{QxNContainer::QxNContainerPaths::COMPOSE_FILES_PATH};

    std::string Trim(const char* text) { return handler._trim(text); }

    /// Runs a program; the text that was in the output before must never be seen again.
    Result RunProgram(std::string path, std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        std::string output = "old content";
        const int code = handler._executeShellCommand(path.data(), argv.data(), output);
        return {code, std::move(output)};
    }

    Result RunScript(const std::string& script) { return RunProgram("/bin/sh", {"sh", "-c", script}); }

    /// A checked file: result, path and error text.
    struct Checked {
        int code;
        std::string path;
        std::string error;
    };
    Checked Check(const char* fileName) {
        Checked checked{};
        checked.code = handler._checkComposeFile(fileName, checked.path, checked.error);
        return checked;
    }

    int Execute(const std::string& path, int cmdType, QxNJson::json& result) {
        return handler._executeComposeCommand(path, cmdType, result);
    }

    int Status(const std::string& path, std::string& output, QxNJson::json& status) {
        return handler._getContainerStatus(path, output, status);
    }

    int Transition(int cmdType, const std::string& expectedState, const QxNJson::json& before,
                   const QxNJson::json& after, QxNJson::json& containers) {
        return handler._getStateTransition(cmdType, expectedState, before, after, containers);
    }
};
