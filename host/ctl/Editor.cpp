#include "Editor.h"

#include "CtlError.h"
#include "Interruption.h"
#include "LocalFile.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

/// Larger than what the board takes: that is told when the text is sent, and then it is not lost.
constexpr size_t LargestText = 16UL * 1024 * 1024;

std::string EditorCommand() {
    for (const char* name : {"VISUAL", "EDITOR"}) {
        const char* const command = getenv(name);
        if (command != nullptr && command[0] != '\0') {
            return command;
        }
    }
    return "vi";
}

[[noreturn]] void Fail(const std::string& what) {
    throw CtlError(ExitCode::Failed, what + ": " + strerror(errno));
}

/// Runs the editor, whose command may have arguments, as the shell understands them.
/// @return its wait status
int RunEditor(const std::string& path) {
    const std::string script = EditorCommand() + " \"$1\"";
    // Ctrl-C means the editor, not this tool.
    const Interruption::Ignored ignored;
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGINT, SIG_DFL);
        execl("/bin/sh", "sh", "-c", script.c_str(), "editor", path.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace

EditedText::EditedText(const std::string& text, const std::string& suffix)
    : _path((std::filesystem::temp_directory_path() / "qxctl-XXXXXX").string() + suffix) {
    const int file = mkostemps(_path.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
    if (file < 0) {
        Fail("cannot make a temporary file");
    }
    const ssize_t written = write(file, text.data(), text.size());
    if (close(file) != 0 || written != static_cast<ssize_t>(text.size())) {
        unlink(_path.c_str());
        Fail("cannot write a temporary file");
    }
}

EditedText::~EditedText() {
    if (!_isKept) {
        unlink(_path.c_str());
    }
}

std::string EditedText::Edit() const {
    const int status = RunEditor(_path);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw CtlError(ExitCode::Failed, "the editor '" + EditorCommand() + "' failed; nothing was changed");
    }
    return ReadLocalFile(_path, LargestText);
}

const std::string& EditedText::Keep() {
    _isKept = true;
    return _path;
}
