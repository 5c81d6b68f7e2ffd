#include "Commands.h"
#include "Interruption.h"
#include "ToolError.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>

namespace {

constexpr const char* ExitCodesText =
    "Exit codes:\n"
    "  0  fine\n"
    "  1  something would not be loaded, or another problem was found\n"
    "  2  wrong usage: an option is missing, unknown or has a value that a plugin cannot carry\n"
    "  3  a file cannot be read or written, or a program that is needed is not there\n"
    "Interrupted by a signal, the tool leaves no half-done file and ends by that signal.";

void AddPack(CLI::App& app, PackOptions& options, std::function<int()>& command) {
    CLI::App& pack = *app.add_subcommand("pack", "Make a plugin file");
    pack.add_option("--name", options.name, "plugin name, at most 63 bytes")->required();
    pack.add_option("--version", options.version, "version, normally major.minor.patch; at most 31 bytes")
        ->required();
    pack.add_option("--os", options.compatibleOs,
                    "text that the board's OS release must contain; default: any release");
    pack.add_option("--init", options.initCommand,
                    "shell command that the board runs in the mounted image; default: none");
    pack.add_option("--priority", options.priority, "load order, smaller first; default: 0");
    pack.add_option("--type", options.type, "plugin type; boards load only 1, squashfs, the default");
    CLI::Option* directory =
        pack.add_option("--dir", options.directory, "directory to make the image of (mksquashfs)");
    CLI::Option* image =
        pack.add_option("--image", options.image, "finished squashfs image, instead of --dir");
    directory->excludes(image);
    pack.add_option("-o,--output", options.output, "plugin file to make; replaced when it is complete")
        ->required();
    pack.add_flag("--json", options.json, "print the result as JSON");
    pack.footer(ExitCodesText);
    pack.callback([&] {
        if (options.directory.empty() && options.image.empty()) {
            throw ToolError(ExitCode::Usage, "say what to pack: --dir DIRECTORY or --image FILE");
        }
        command = [&] { return Pack(options); };
    });
}

void AddShow(CLI::App& app, ShowOptions& options, std::function<int()>& command) {
    CLI::App& show = *app.add_subcommand("show", "Tell what a plugin file says of itself");
    show.add_option("FILE", options.file, "plugin file")->required();
    show.add_flag("--json", options.json, "print it as JSON");
    show.footer(ExitCodesText);
    show.callback([&] { command = [&] { return Show(options); }; });
}

void AddCheck(CLI::App& app, CheckOptions& options, std::function<int()>& command) {
    CLI::App& check = *app.add_subcommand("check", "Tell what a board would do with plugin files, and why");
    check
        .add_option("PATH", options.paths,
                    "plugin files and directories, as if all lay in the user directory")
        ->required();
    check.add_option("--os-release", options.osRelease,
                     "OS release of the board; default: that of this machine");
    check.add_option("--deactivated", options.deactivationConfig,
                     "plugin configuration of the board (config.json)");
    check.add_option("--system", options.systemDirectory, "the board's directory of system plugins");
    check.add_flag("--json", options.json, "print it as JSON");
    check.footer(
        std::string("In a directory, hidden files and config.json are expected not to be plugins; everything "
                    "else that would\nnot be loaded gives exit code 1.\n\n") +
        ExitCodesText);
    check.callback([&] { command = [&] { return Check(options); }; });
}

int Run(int argc, char** argv) {
    CLI::App app("Makes, shows and checks container runtime plugin files (CRP).", "crp");
    app.require_subcommand(1);
    app.footer(ExitCodesText);
    PackOptions packOptions;
    ShowOptions showOptions;
    CheckOptions checkOptions;
    std::function<int()> command;
    AddPack(app, packOptions, command);
    AddShow(app, showOptions, command);
    AddCheck(app, checkOptions, command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitCode::Fine : ExitCode::Usage;
    }
    return command();
}

}  // namespace

int main(int argc, char** argv) {
    // Whoever started the tool may have it ignored, and then children could not be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    try {
        const int exitCode = Run(argc, argv);
        if (fflush(stdout) != 0 || ferror(stdout) != 0) {
            ThrowSystemError("cannot write the result");
        }
        return exitCode;
    } catch (const Interrupted& interrupted) {
        EndBySignal(interrupted.signal);
    } catch (const ToolError& error) {
        fprintf(stderr, "crp: %s\n", error.what());
        return error.GetExitCode();
    } catch (const std::exception& error) {
        fprintf(stderr, "crp: %s\n", error.what());
        return ExitCode::InputOutput;
    }
}
