#include "crp/PluginFile.h"

#include "crp/PluginHeader.h"
#include "support/UniqueFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <memory>

namespace CRP {

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

PluginFileStatus readPluginFile(const std::string& path, CrpPluginHeader& header, std::uint64_t* fileSize) {
    // Means nothing to regular files, but a FIFO or terminal that took the file's place must not hold us up.
    constexpr int NeverWait = O_NONBLOCK | O_NOCTTY;
    const QxNSupport::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | NeverWait));
    if (!file.IsOpen()) {
        return PluginFileStatus::CannotOpen;
    }
    constexpr off_t TrailerSize = CRP_HEADER_SIZE;
    const off_t size = lseek(file.Get(), 0, SEEK_END);
    if (size < 0) {
        return PluginFileStatus::CannotRead;
    }
    if (size < TrailerSize) {
        return PluginFileStatus::TooShort;
    }
    if (lseek(file.Get(), size - TrailerSize, SEEK_SET) < 0 ||
        read(file.Get(), &header, CRP_HEADER_SIZE) != TrailerSize) {
        return PluginFileStatus::CannotRead;
    }
    if (fileSize != nullptr) {
        *fileSize = static_cast<std::uint64_t>(size);
    }
    switch (checkTrailer(header)) {
        case TrailerStatus::WrongMagic:
            return PluginFileStatus::WrongMagic;
        case TrailerStatus::IncompatibleSize:
            return PluginFileStatus::IncompatibleHeader;
        case TrailerStatus::Valid:
            break;
    }
    return PluginFileStatus::Plugin;
}

bool visitDirectory(const std::string& directory, const std::function<void(std::string_view name)>& visit) {
    const std::unique_ptr<DIR, DirectoryCloser> stream(opendir(directory.c_str()));
    if (stream == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(stream.get())) {
        visit(entry->d_name);
    }
    return true;
}

std::optional<std::vector<std::string>> listDirectory(const std::string& directory) {
    std::vector<std::string> names;
    if (!visitDirectory(directory, [&names](std::string_view name) { names.emplace_back(name); })) {
        return std::nullopt;
    }
    return names;
}

bool isHidden(std::string_view entryName) { return entryName.starts_with('.'); }

bool isRegularFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace CRP
