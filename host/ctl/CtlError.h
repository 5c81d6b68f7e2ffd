#pragma once

#include <stdexcept>
#include <string>

/// The tool's exit codes, as its help explains them.
namespace ExitCode {
inline constexpr int Fine = 0;
inline constexpr int Failed = 1;
inline constexpr int Usage = 2;
inline constexpr int Unreachable = 3;
inline constexpr int NotAllowed = 4;
inline constexpr int NotFound = 5;
inline constexpr int Warnings = 10;
inline constexpr int Errors = 11;
inline constexpr int Interrupted = 130;
}  // namespace ExitCode

/// What ends a command; the text is for the user.
class CtlError : public std::runtime_error {
public:
    /// @param httpStatus  of the daemon's refusal; 0: it was none
    CtlError(int exitCode, const std::string& text, long httpStatus = 0)
        : std::runtime_error(text), _exitCode(exitCode), _httpStatus(httpStatus) {}

    int GetExitCode() const { return _exitCode; }
    long HttpStatus() const { return _httpStatus; }

private:
    int _exitCode;
    long _httpStatus;
};
