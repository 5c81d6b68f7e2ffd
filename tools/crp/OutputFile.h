#pragma once

#include "support/UniqueFd.h"

#include <cstdint>
#include <string>
#include <string_view>

/// A file that appears under its name only when it is complete. Until then it is a hidden file beside it,
/// which no board would look at; it goes with this object.
class OutputFile {
public:
    /// @param path  file to make or to replace; a link is followed
    explicit OutputFile(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    /// @return path of the hidden file
    const std::string& TemporaryPath() const { return _temporaryPath; }

    std::uint64_t Size() const;

    /// Writes at the end.
    void Append(std::string_view bytes);

    /// Gives the file its name.
    void Commit();

private:
    std::string _path;
    std::string _temporaryPath;
    QxNSupport::UniqueFd _file;
};
