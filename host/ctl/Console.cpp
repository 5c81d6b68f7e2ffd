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

constexpr size_t LongestWaiting = 64 << 10;

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
    _waiting += text;
    if (_isTerminal || _waiting.size() >= LongestWaiting) {
        Flush();
    }
}

// Not by the C library's stream, which loses text when a signal interrupts it.
void Console::Flush() const {
    std::string_view rest = _waiting;
    while (!rest.empty()) {
        const ssize_t count = TEMP_FAILURE_RETRY(write(STDOUT_FILENO, rest.data(), rest.size()));
        if (count < 0) {
            _waiting.clear();
            FailToWrite();
        }
        rest.remove_prefix(static_cast<size_t>(count));
    }
    _waiting.clear();
}

void Tell(std::string_view text) { fprintf(stderr, "qxctl: %s\n", Printable(text, Lines::AreKept).c_str()); }
