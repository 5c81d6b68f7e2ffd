#pragma once

#include "QxExport.h"
#include "QxNJson.h"

#include <string>

/// Runs docker-compose on project files of one directory and tells what changed.
///
/// Thread safety: no state between calls, several threads may run operations at once; operations on the same
/// project are not serialised. Every operation blocks until the tool has ended, without a time limit.
class QX_EXPORT QxCComposeFileHandler {
public:
    /// @param composeFilesDirectory  directory of the project files, with its trailing slash
    explicit QxCComposeFileHandler(std::string composeFilesDirectory);
    QxCComposeFileHandler(const QxCComposeFileHandler&) = delete;
    QxCComposeFileHandler& operator=(const QxCComposeFileHandler&) = delete;
    virtual ~QxCComposeFileHandler();

    /// Creates, starts, stops or removes the containers of a project.
    /// @param fileName  name of the project file in the directory; blanks around it are ignored
    /// @param result    replaced by an object with "Status" ("Success" or "Error"), "Message" (a sentence)
    ///                  and "Containers" (the containers that changed, each with "Name" and "State")
    /// @return 0 success (1 for composeCreate), 2 no file name pointer, 3 empty file name, 4 no such file,
    ///         5 the tool could not be started, 6 the tool failed, 7 success but no container changed,
    ///         8 unexpected outcome
    /// Errors: a status answer of the tool that is not JSON raises the JSON type's parse error, one with a
    /// number beyond all bounds its out_of_range, an entry without a text "Name" or "State" its type error;
    /// the result is null then.
    int composeCreate(const char* fileName, QxNJson::json& result);
    int composeStart(const char* fileName, QxNJson::json& result);
    int composeStop(const char* fileName, QxNJson::json& result);
    int composeRemove(const char* fileName, QxNJson::json& result);

private:
    friend struct ComposeFileHandlerTest;

    int _runOperation(const char* fileName, int cmdType, const char* commandName, QxNJson::json& result);
    std::string _trim(const char* text);
    int _executeShellCommand(char* path, char** argv, std::string& output);
    int _checkComposeFile(const char* fileName, std::string& composeFilePath, std::string& errorText);
    int _executeComposeCommand(const std::string& composeFilePath, int cmdType, QxNJson::json& result);
    int _getContainerStatus(const std::string& composeFilePath, std::string& output, QxNJson::json& status);
    int _getStateTransition(int cmdType, std::string expectedState, QxNJson::json before, QxNJson::json after,
                            QxNJson::json& containers);

    std::string _composeFilesDirectory;
};
