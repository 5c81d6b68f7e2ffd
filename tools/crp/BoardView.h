#pragma once

#include "crp/PluginSelection.h"

#include <cstdint>
#include <string>
#include <vector>

/// What a board does with plugin files, by the library's own rules.
namespace BoardView {

enum class Verdict {
    Load,
    Skipped,  ///< no plugin for the board
    Superseded,
    Incompatible,
    Deactivated,
    UnsupportedType,
};

const char* TextOf(Verdict verdict);

/// One file, and what becomes of it.
struct Finding {
    Verdict verdict = Verdict::Skipped;
    std::string reason;
    CRP::PluginInfo plugin{};  ///< its path always; the rest when isPlugin
    bool isPlugin = false;
    std::uint64_t fileSize = 0;
    std::size_t order = 0;              ///< position in load order, from 1; 0: not loaded
    std::string supersededBy;           ///< path
    bool isFailure = false;             ///< the file could not be looked at
    bool isExpected = false;            ///< lies beside plugins and is meant not to be one
    std::vector<std::string> problems;  ///< what will go wrong although the board does not see it before
};

/// Looks at one file.
Finding Examine(const std::string& path, const std::string& osRelease);

/// Looks at every entry of a directory, in its own order.
/// @return false, with errno set, when the directory cannot be read
bool ExamineDirectory(const std::string& directory, const std::string& osRelease,
                      std::vector<Finding>& findings);

/// Decides about all plugins that were found, in the order in which the board finds them.
void Judge(std::vector<Finding>& findings, const CRP::DeactivationList& deactivated);

}  // namespace BoardView
