#pragma once

#include <array>
#include <fstream>
#include <iterator>
#include <string>

namespace QxNSupport {

struct OutputBuffer {
    std::array<char, 1024> bytes;
};

/// A text file for writing, emptied or made when it is opened. Its buffer is its own: a stream would only ask
/// for one when the file is empty already, and raise bad_alloc when there is none to be had.
class OutputFile : private OutputBuffer, public std::ofstream {
public:
    explicit OutputFile(const std::string& path) {
        rdbuf()->pubsetbuf(bytes.data(), std::ssize(bytes));
        open(path, std::ios::trunc);
    }
};

}  // namespace QxNSupport
