#include "QxCComposeFileHandler.h"

#include "QxNContainerPaths.h"
#include "compose/ComposeStatus.h"
#include "support/ChildProcess.h"
#include "support/Log.h"
#include "support/Text.h"

#include <filesystem>
#include <utility>
#include <vector>

namespace {

using QxNCompose::ErrorObject;
using QxNJson::json;
using QxNSupport::ArgumentVector;
namespace CmdType = QxNCompose::CmdType;
namespace Result = QxNCompose::Result;
namespace ComposeTool = QxNComposeFileHandler::ComposeTool;

/// What a command asks of the tool, and how its result is told.
struct Command {
    std::vector<std::string> words;
    const char* expectedState;
    const char* participle;
};

Command CommandOf(int cmdType) {
    switch (cmdType) {
        case CmdType::Start:
            return {{"start"}, "running", "started"};
        case CmdType::Stop:
            return {{"stop"}, "exited", "stopped"};
        case CmdType::Create:
            return {{"create"}, "created", "created"};
        case CmdType::Remove:
            return {{"rm", "-f"}, "", "removed"};
        default:
            return {{}, "", ""};
    }
}

std::vector<std::string> ToolWords(const std::string& composeFilePath) {
    return {ComposeTool::Exe, "-f", composeFilePath, "-p", QxNCompose::ProjectNameOf(composeFilePath)};
}

char* ToolPath() { return const_cast<char*>(ComposeTool::Path); }

}  // namespace

QxCComposeFileHandler::QxCComposeFileHandler(std::string composeFilesDirectory)
    : _composeFilesDirectory(std::move(composeFilesDirectory)) {}

QxCComposeFileHandler::~QxCComposeFileHandler() = default;

int QxCComposeFileHandler::composeCreate(const char* fileName, json& result) {
    return _runOperation(fileName, CmdType::Create, "CREATE", result);
}

int QxCComposeFileHandler::composeStart(const char* fileName, json& result) {
    return _runOperation(fileName, CmdType::Start, "START", result);
}

int QxCComposeFileHandler::composeStop(const char* fileName, json& result) {
    return _runOperation(fileName, CmdType::Stop, "STOP", result);
}

int QxCComposeFileHandler::composeRemove(const char* fileName, json& result) {
    return _runOperation(fileName, CmdType::Remove, "REMOVE", result);
}

int QxCComposeFileHandler::_runOperation(const char* fileName, int cmdType, const char* commandName,
                                         json& result) {
    result = nullptr;
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Service: Check compose file for %s command...",
                      commandName);
    std::string path;
    std::string error;
    const int checked = _checkComposeFile(fileName, path, error);
    if (checked != 0) {
        result = ErrorObject("Checking compose YAML file failed: " + error);
        return checked;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Service: Execute compose command %s...",
                      commandName);
    return _executeComposeCommand(path, cmdType, result);
}

std::string QxCComposeFileHandler::_trim(const char* text) { return QxNSupport::Trimmed(text); }

int QxCComposeFileHandler::_checkComposeFile(const char* fileName, std::string& composeFilePath,
                                             std::string& errorText) {
    if (fileName == nullptr) {
        errorText = "file name is uninitialized.";
        return Result::NoFileNamePointer;
    }
    const std::string name = _trim(fileName);
    if (name.empty()) {
        errorText = "no file name is specified.";
        return Result::EmptyFileName;
    }
    composeFilePath = _composeFilesDirectory + name;
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::status(composeFilePath, error))) {
        errorText = "file '" + composeFilePath + "' is not existing.";
        return Result::NoSuchFile;
    }
    return 0;
}

int QxCComposeFileHandler::_executeComposeCommand(const std::string& composeFilePath, int cmdType,
                                                  json& result) {
    const Command command = CommandOf(cmdType);
    if (command.words.empty()) {
        result = ErrorObject("unexpected CmdType " + std::to_string(cmdType));
        return Result::Unexpected;
    }
    std::vector<std::string> words = ToolWords(composeFilePath);
    words.insert(words.end(), {"--progress", "quiet"});
    words.insert(words.end(), command.words.begin(), command.words.end());
    std::vector<char*> arguments = ArgumentVector(words);

    std::string output;
    json before;
    json after;
    int code = _getContainerStatus(composeFilePath, output, before);
    if (code == 0) {
        code = _executeShellCommand(ToolPath(), arguments.data(), output);
    }
    if (code == 0) {
        code = _getContainerStatus(composeFilePath, output, after);
    }
    if (code != 0) {
        result = ErrorObject(output);
        return code;
    }

    json containers = json::array();
    const int transition = _getStateTransition(cmdType, command.expectedState, before, after, containers);
    QxNCompose::Outcome outcome = QxNCompose::OutcomeOf(cmdType, command.participle, transition, containers);
    result = std::move(outcome.result);
    return outcome.code;
}

int QxCComposeFileHandler::_getContainerStatus(const std::string& composeFilePath, std::string& output,
                                               json& status) {
    status = nullptr;
    output.clear();
    std::vector<std::string> words = ToolWords(composeFilePath);
    words.insert(words.end(), {"ps", "-a", "--format", "json"});
    const int code = _executeShellCommand(ToolPath(), ArgumentVector(words).data(), output);
    if (code != 0) {
        return code;
    }
    constexpr bool ThrowOnError = true;
    status = json::parse(QxNCompose::StatusArrayText(std::move(output)), ThrowOnError);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Service:   container status for '%s': %s",
                      QxNCompose::ProjectNameOf(composeFilePath).c_str(), status.dump().c_str());
    output.clear();
    return 0;
}

// By value, as the class declares it.
// NOLINTBEGIN(performance-unnecessary-value-param)
int QxCComposeFileHandler::_getStateTransition(int cmdType, std::string expectedState, json before,
                                               json after, json& containers) {
    return QxNCompose::CompareStates(cmdType, expectedState, std::move(before), after, containers);
}
// NOLINTEND(performance-unnecessary-value-param)
