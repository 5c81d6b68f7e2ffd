#include "http/PageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <array>

namespace QxNHttp {

namespace {

using QxNSupport::UniqueFd;

constexpr std::array<std::pair<std::string_view, std::string_view>, 9> Types{{
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
    {".png", "image/png"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
    {".json", "application/json"},
    {".webmanifest", "application/manifest+json"},
}};

std::string TypeOf(std::string_view name) {
    const auto found = std::find_if(Types.begin(), Types.end(),
                                    [&](const auto& type) { return name.ends_with(type.first); });
    return std::string(found == Types.end() ? "application/octet-stream" : found->second);
}

/// Goes down one name at a time, so that no link leads out.
UniqueFd OpenBelow(const std::string& directory, const std::vector<std::string>& names) {
    UniqueFd place(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (size_t at = 0; at < names.size() && place.IsOpen(); ++at) {
        const bool isLast = at + 1 == names.size();
        place = UniqueFd(openat(place.Get(), names[at].c_str(),
                                O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (isLast ? 0 : O_DIRECTORY)));
    }
    struct stat status {};
    const bool isFile = place.IsOpen() && fstat(place.Get(), &status) == 0 && S_ISREG(status.st_mode);
    return isFile ? std::move(place) : UniqueFd();
}

}  // namespace

Reply PageFile(const std::string& directory, const Request& request) {
    if (request.method != Verb::get && request.method != Verb::head) {
        throw Problem(Status::method_not_allowed, "Pages can only be read.");
    }
    std::vector<std::string> names = request.segments;
    if (names.empty()) {
        names.push_back("index.html");
    }
    const bool areNames = std::none_of(names.begin(), names.end(), [](const std::string& name) {
        return name.find('/') != std::string::npos;
    });
    Reply reply;
    if (!directory.empty() && areNames) {
        reply.file = OpenBelow(directory, names);
    }
    if (!reply.file.IsOpen()) {
        throw Problem(Status::not_found,
                      directory.empty() ? "The daemon serves no page; its option --page names the directory."
                                        : "There is no such page.");
    }
    reply.type = TypeOf(names.back());
    // Files below "assets" bear a hash of their content in their names.
    reply.headers.emplace_back(
        "Cache-Control", names.front() == "assets" ? "public, max-age=31536000, immutable" : "no-cache");
    return reply;
}

}  // namespace QxNHttp
