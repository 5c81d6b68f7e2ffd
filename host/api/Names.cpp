#include "api/Names.h"

#include "api/Interface.h"
#include "http/Background.h"

#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

using QxNHttp::Problem;
using QxNHttp::Status;

namespace {

constexpr size_t LongestContainerName = 128;
constexpr size_t LongestImageName = 255;

bool IsAlphanumeric(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 && (c & 0x80) == 0; }

bool IsName(std::string_view text, size_t longest, std::string_view marks) {
    return !text.empty() && text.size() <= longest && IsAlphanumeric(text.front()) &&
           std::all_of(text.begin(), text.end(),
                       [&](char c) { return IsAlphanumeric(c) || marks.find(c) != std::string_view::npos; });
}

}  // namespace

const std::string& FileName(const std::string& name) {
    if (!QxNHttp::IsFileName(name)) {
        throw Problem(Status::bad_request,
                      "A file name has 1 to 128 letters, digits, dots, hyphens and underscores and begins "
                      "with a letter "
                      "or digit.");
    }
    return name;
}

const std::string& ContainerName(const std::string& name) {
    if (!IsName(name, LongestContainerName, "_.-")) {
        throw Problem(Status::bad_request, "This is no name or id of a container.");
    }
    return name;
}

std::string ImageInUrl(const std::string& image) {
    if (!IsName(image, LongestImageName, "._:/@-") || image.find("..") != std::string::npos ||
        image.find("//") != std::string::npos || image.find("/.") != std::string::npos) {
        throw Problem(Status::bad_request, "This is no name or id of an image.");
    }
    std::string escaped;
    for (const char c : image) {
        escaped += c == '/' ? "%2F" : std::string(1, c);
    }
    return escaped;
}

QxNHttp::Task<void> RemoveFile(const std::string& path, const std::string& notFound) {
    co_await QxNHttp::InBackground(QxNHttp::DiskThread(), [&] {
        if (unlink(path.c_str()) == 0) {
            return;
        }
        if (errno == ENOENT) {
            throw Problem(Status::not_found, notFound);
        }
        throw Problem(Status::internal_server_error,
                      "The file " + path + " cannot be removed: " + strerror(errno));
    });
}

QxNHttp::Task<QxNJson::json> ReadObject(QxNHttp::Request& request, size_t longest) {
    const std::string text = co_await request.body->Text(longest);
    QxNJson::json object = QxNJson::json::parse(text);
    if (!object.is_object()) {
        throw Problem(Status::bad_request, "The body must be a JSON object.");
    }
    co_return object;
}
