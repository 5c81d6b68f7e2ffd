#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// The tool's exit codes.
namespace ExitCode {
inline constexpr int Fine = 0;
inline constexpr int Problem = 1;
inline constexpr int Usage = 2;
inline constexpr int InputOutput = 3;
}  // namespace ExitCode

/// What ends a command; the text is for the user.
class ToolError : public std::runtime_error {
public:
    ToolError(int exitCode, const std::string& text) : std::runtime_error(text), _exitCode(exitCode) {}

    int GetExitCode() const { return _exitCode; }

private:
    int _exitCode;
};

/// @param what  what failed; errno says why
[[noreturn]] inline void ThrowSystemError(const std::string& what) {
    throw ToolError(ExitCode::InputOutput, what + ": " + strerror(errno));
}
