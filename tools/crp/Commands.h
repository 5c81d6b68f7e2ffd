#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The tool's commands. Each prints its result and returns the exit code; what ends it early is a ToolError.

struct PackOptions {
    std::string name;
    std::string version;
    std::string compatibleOs;
    std::string initCommand;
    std::uint32_t priority = 0;
    std::uint32_t type = 1;
    std::string directory;  ///< what to make the image of; empty when `image` is given
    std::string image;      ///< a finished image; empty when `directory` is given
    std::string output;
    bool json = false;
};
int Pack(const PackOptions& options);

struct ShowOptions {
    std::string file;
    bool json = false;
};
int Show(const ShowOptions& options);

struct CheckOptions {
    std::vector<std::string> paths;        ///< in the order in which the board would find them
    std::string systemDirectory;           ///< looked at after `paths`; empty: none
    std::string deactivationConfig;        ///< empty: nothing is deactivated
    std::optional<std::string> osRelease;  ///< nothing: that of the running kernel
    bool json = false;
};
int Check(const CheckOptions& options);
