#include "support/Directory.h"

#include <dirent.h>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>

namespace QxNSupport {

namespace fs = std::filesystem;

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

[[noreturn]] void Raise(const char* what, const std::string& directory) {
    const std::error_code error(errno, std::generic_category());
    throw fs::filesystem_error(what, directory, error);
}

}  // namespace

void VisitDirectory(const std::string& directory, const std::function<void(const std::string& name)>& visit) {
    const std::unique_ptr<DIR, DirectoryCloser> stream(opendir(directory.c_str()));
    if (stream == nullptr) {
        Raise("cannot open directory", directory);
    }
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(stream.get());
        if (entry == nullptr) {
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            visit(std::string(name));
        }
    }
    if (errno != 0) {
        Raise("cannot read directory", directory);
    }
}

bool IsEmptyDirectory(const std::string& directory) {
    bool isEmpty = true;
    VisitDirectory(directory, [&isEmpty](const std::string&) { isEmpty = false; });
    return isEmpty;
}

}  // namespace QxNSupport
