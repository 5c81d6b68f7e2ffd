#pragma once

#include <chrono>
#include <string>
#include <vector>

/// What a program did.
struct ProgramOutcome {
    bool hasStarted = false;
    int exitCode = -1;   ///< -1: killed, also by us at the deadline
    std::string output;  ///< standard output and error together, at most 64 KiB
};

/// Runs a program with a text as its standard input; blocks until it has ended.
/// @param input  at most what a file in memory can hold
ProgramOutcome RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                          const std::string& input, std::chrono::milliseconds deadline);
