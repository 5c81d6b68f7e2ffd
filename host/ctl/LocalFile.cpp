#include "LocalFile.h"

#include "CtlError.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace {

int CloseUnlessInput(FILE* file) { return file == stdin ? 0 : fclose(file); }

}  // namespace

std::string ReadLocalFile(const std::string& path, size_t largest) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(path == "-" ? stdin : fopen(path.c_str(), "rbe"),
                                                     &CloseUnlessInput);
    std::string text(largest + 1, '\0');
    const size_t size = file != nullptr ? fread(text.data(), 1, text.size(), file.get()) : 0;
    if (file == nullptr || ferror(file.get()) != 0) {
        throw CtlError(ExitCode::Failed, "cannot read '" + path + "': " + strerror(errno));
    }
    if (size > largest) {
        throw CtlError(ExitCode::Failed,
                       "'" + path + "' has more than " + std::to_string(largest) + " bytes");
    }
    text.resize(size);
    return text;
}

std::string NameOnBoard(const std::string& path, const std::string& given) {
    if (!given.empty()) {
        return given;
    }
    std::string name = path == "-" ? std::string() : std::filesystem::path(path).filename().string();
    if (name.empty()) {
        throw CtlError(ExitCode::Usage, "say with --as NAME what the file is called on the board");
    }
    return name;
}
