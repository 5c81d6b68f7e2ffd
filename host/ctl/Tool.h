#pragma once

#include "Answers.h"
#include "Client.h"
#include "Console.h"
#include "CtlError.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <string>

/// What all commands share.
struct Tool {
    ConnectionOptions connection;
    bool json = false;
    Console console;
    std::function<int()> command;  ///< what the user asked for; returns the exit code

    Endpoint MakeEndpoint() const { return ::MakeEndpoint(connection); }

    /// Sends a request. Refusals are CtlErrors.
    HttpAnswer Send(const HttpRequest& request) const;

    /// Shows an answer that is JSON: as it came when the user wants that, otherwise for people.
    /// @param present  prints it for people
    /// @param judge    tells the exit code; nothing: it is always a success
    int Show(const HttpRequest& request, const std::function<void(const Answers::Value&)>& present,
             const std::function<int(const Answers::Value&)>& judge = {}) const;

    /// Does something that has no answer of its own.
    /// @param text  what was done, for people
    int Do(const HttpRequest& request, const std::string& text) const;

    /// Prints a text of the daemon, which ends with a line feed then.
    void PrintText(std::string_view text) const;
    void Print(std::string_view text) const { console.Write(text); }
};

/// Adds a command whose help ends with examples.
/// @param examples  whole command lines, one a line
CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& description,
                     const std::string& examples = {});

/// Adds a command that only has commands of its own.
CLI::App* AddGroup(CLI::App& parent, const std::string& name, const std::string& description);

/// Adds something that has to be said after the command.
/// @param name  in capitals; it tells completion what it is
CLI::Option* AddArgument(CLI::App* command, const std::string& name, std::string& value,
                         const std::string& description);

/// Hands over what a command does.
void OnCommand(CLI::App* command, Tool& tool, std::function<int()> action);

void AddServiceCommands(CLI::App& app, Tool& tool);
void AddContainerCommands(CLI::App& app, Tool& tool);
void AddLogsCommand(CLI::App& app, Tool& tool);
void AddImageCommands(CLI::App& app, Tool& tool);
void AddComposeCommands(CLI::App& app, Tool& tool);
void AddPluginCommands(CLI::App& app, Tool& tool);
void AddMessagesCommand(CLI::App& app, Tool& tool);
void AddTokenCommands(CLI::App& app, Tool& tool);
void AddCompletionCommands(CLI::App& app, Tool& tool);
