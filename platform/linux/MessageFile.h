#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace QxNLinuxPlatform {

/// A file of lines to which several processes append and which further programs follow.
///
/// Writers exclude each other by flock(2), so that lines never mix and the file is renamed by one of them
/// only. Thread safety: append may be called from any thread.
class MessageFile {
public:
    /// @param path      the file; missing directories are created
    /// @param maxBytes  a file that would grow beyond is renamed to `path`.1 and begun anew
    MessageFile(std::string path, std::size_t maxBytes);

    /// Appends lines, all to the same file; one that cannot be written whole leaves no trace.
    /// @param lines  texts with their line feeds
    /// @return 0, or the errno of the failure
    int append(const std::vector<std::string>& lines);

    const std::string& path() const { return _path; }

private:
    const std::string _path;
    const std::size_t _maxBytes;
    std::mutex _mutex;
};

}  // namespace QxNLinuxPlatform
