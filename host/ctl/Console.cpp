#include "Console.h"

#include "CtlError.h"
#include "Text.h"

#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool IsWithoutColours() {
    const char* const noColour = getenv("NO_COLOR");
    const char* const terminal = getenv("TERM");
    return (noColour != nullptr && noColour[0] != '\0') || terminal == nullptr ||
           strcmp(terminal, "dumb") == 0;
}

const char* CodeOf(Style style) {
    switch (style) {
        case Style::Plain:
            return "";
        case Style::Heading:
            return "1";
        case Style::Good:
            return "32";
        case Style::Warning:
            return "33";
        case Style::Bad:
            return "31";
        case Style::Faint:
            return "2";
    }
    return "";
}

[[noreturn]] void FailToWrite() {
    if (errno == EPIPE) {
        // Who reads has enough, such as head(1): the end that programs have then, also while the signal is ignored.
        std::signal(SIGPIPE, SIG_DFL);
        raise(SIGPIPE);
    }
    throw CtlError(ExitCode::Failed, std::string("cannot write the result: ") + strerror(errno));
}

}  // namespace

Console::Console()
    : _isTerminal(isatty(STDOUT_FILENO) == 1), _hasColours(_isTerminal && !IsWithoutColours()) {}

std::string Console::Styled(std::string_view text, Style style) const {
    if (!_hasColours || style == Style::Plain) {
        return std::string(text);
    }
    return std::string("\x1b[") + CodeOf(style) + "m" + std::string(text) + "\x1b[0m";
}

void Console::Write(std::string_view text) const {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        FailToWrite();
    }
}

void Console::Flush() const {
    if (fflush(stdout) != 0) {
        FailToWrite();
    }
}

void Tell(std::string_view text) { fprintf(stderr, "qxctl: %s\n", Printable(text, Lines::AreKept).c_str()); }
