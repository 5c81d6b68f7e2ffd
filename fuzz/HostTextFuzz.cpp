// Any four lines as the texts of a request to the daemon: its target, Host and Origin, and a name.

#include "Support.h"
#include "api/Interface.h"
#include "api/Names.h"
#include "http/Origin.h"
#include "http/PageFiles.h"

#include <sys/stat.h>
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Fuzz::Require;
using namespace QxNHttp;

constexpr const char* Page = "/mnt/page";
constexpr std::string_view LettersAndDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::vector<std::string> Split(std::string_view text, char separator) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == separator) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower;
}

/// @return nothing when the function throws a Problem
template <typename Function>
auto Unless(Function function) -> std::optional<decltype(function())> {
    try {
        return function();
    } catch (const Problem& problem) {
        Require(static_cast<int>(problem.status) / 100 == 4);
        return {};
    }
}

// --- Targets ---

std::optional<std::string> DecodePlainly(std::string_view text, bool plusIsBlank) {
    constexpr std::string_view Digits = "0123456789abcdef";
    std::string decoded;
    const auto parts = Split(text, '%');
    for (size_t i = 0; i < parts.size(); ++i) {
        std::string rest = parts[i];
        if (i > 0) {
            const size_t high = rest.empty() ? std::string_view::npos : Digits.find(Lower(rest)[0]);
            const size_t low = rest.size() < 2 ? std::string_view::npos : Digits.find(Lower(rest)[1]);
            if (high == std::string_view::npos || low == std::string_view::npos) {
                return {};
            }
            decoded += static_cast<char>(high * 16 + low);
            rest.erase(0, 2);
        }
        std::replace(rest.begin(), rest.end(), '+', plusIsBlank ? ' ' : '+');
        decoded += rest;
    }
    return decoded.find('\0') == std::string::npos ? std::optional(decoded) : std::nullopt;
}

std::string Encode(std::string_view text) {
    std::string encoded;
    for (const char c : text) {
        char digits[4];
        snprintf(digits, sizeof(digits), "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
        encoded += digits;
    }
    return encoded;
}

void CheckDecoding(std::string_view text) {
    for (const bool plusIsBlank : {false, true}) {
        Require(PercentDecode(text, plusIsBlank) == DecodePlainly(text, plusIsBlank));
        const auto same = PercentDecode(Encode(text), plusIsBlank);
        Require(text.find('\0') == std::string_view::npos ? same == text : !same);
    }
}

std::optional<std::vector<std::string>> SegmentsPlainly(std::string_view path) {
    auto parts = Split(path, '/');
    if (parts.size() < 2 || !parts[0].empty()) {
        return {};
    }
    parts.erase(parts.begin());
    if (parts.back().empty()) {
        parts.pop_back();
    }
    for (std::string& part : parts) {
        const auto name = DecodePlainly(part, false);
        if (!name || name->empty() || *name == "." || *name == "..") {
            return {};
        }
        part = *name;
    }
    return parts;
}

std::optional<std::map<std::string, std::string>> QueryPlainly(std::string_view text) {
    std::map<std::string, std::string> query;
    auto pairs = Split(text, '&');
    if (pairs.back().empty()) {
        pairs.pop_back();
    }
    for (const std::string& pair : pairs) {
        const size_t equals = std::min(pair.find('='), pair.size());
        const auto name = DecodePlainly(pair.substr(0, equals), true);
        const auto value = DecodePlainly(pair.substr(std::min(equals + 1, pair.size())), true);
        if (!name || !value) {
            return {};
        }
        query[*name] = *value;
    }
    return query;
}

void CheckParameters(const Request& request) {
    for (const auto& [name, value] : request.query) {
        constexpr std::uint64_t Highest = 100;
        const size_t significant = std::min(value.find_first_not_of('0'), value.size());
        const bool isNumber = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos &&
                              value.size() - significant <= 3 &&
                              std::stoul("0" + value.substr(significant)) <= Highest;
        const auto number = Unless([&, &key = name] { return request.Number(key, 0, Highest); });
        Require(number ? isNumber && *number == std::stoul("0" + value.substr(significant)) : !isNumber);
        const auto flag = Unless([&, &key = name] { return request.Flag(key, false); });
        Require(flag ? value == (*flag ? "true" : "false") : value != "true" && value != "false");
        Require(request.Parameter(name, value + "x") == value);
    }
}

std::optional<Request> CheckTarget(const std::string& target) {
    Request request;
    const bool isGood = ParseTarget(target, request);
    Require(request.target == target);
    const bool hasFragment = target.find('#') != std::string::npos;
    const size_t question = target.find('?');
    const auto segments = SegmentsPlainly(target.substr(0, question));
    const auto query =
        QueryPlainly(question == std::string::npos ? std::string() : target.substr(question + 1));
    Require(isGood == (segments && query && !hasFragment));
    if (!isGood) {
        return {};
    }
    Require(request.segments == *segments && request.query == *query);
    CheckParameters(request);
    return request;
}

// --- The page ---

void WriteFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void MakePage() {
    const std::string page = Page;
    for (const char* name : {"/index.html", "/assets/a.js", "/assets/b/c.css", "/a b", "/..."}) {
        WriteFile(page + name, name);
    }
    WriteFile("/mnt/secret", "secret");
    fs::create_symlink("/mnt/secret", page + "/link");
    fs::create_symlink("index.html", page + "/inner");
    fs::create_directory_symlink("/mnt", page + "/up");
    fs::create_directory_symlink(".", page + "/assets/loop");
    Require(mkfifo((page + "/pipe").c_str(), 0600) == 0);
}

/// @return the files of the page by their names below its directory, found by walking through it
std::map<std::string, ino_t> FilesOfPage() {
    std::map<std::string, ino_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(Page)) {
        struct stat status {};
        Require(lstat(entry.path().c_str(), &status) == 0);
        if (S_ISREG(status.st_mode)) {
            files[entry.path().lexically_relative(Page).string()] = status.st_ino;
        }
    }
    return files;
}

void CheckPage(const Request& request) {
    static const auto files = FilesOfPage();
    std::string name;
    bool areNames = true;
    for (const std::string& segment : request.segments) {
        name += (name.empty() ? "" : "/") + segment;
        areNames = areNames && segment.find('/') == std::string::npos;
    }
    const auto found = areNames ? files.find(name.empty() ? "index.html" : name) : files.end();
    const auto reply = Unless([&] { return PageFile(Page, request); });
    Require(reply.has_value() == (found != files.end()));
    if (reply) {
        struct stat status {};
        Require(fstat(reply->file.Get(), &status) == 0 && status.st_ino == found->second);
    }
    Require(!Unless([&] { return PageFile("", request); }));
}

// --- Senders ---

/// A host is a name without colons or an address in brackets; a port has one to five digits.
std::string HostPlainly(std::string_view authority) {
    const size_t colon = authority.rfind(':');
    std::string_view host = authority;
    if (colon != std::string_view::npos) {
        const std::string_view port = authority.substr(colon + 1);
        const bool isPort = !port.empty() && port.size() <= 5 &&
                            port.find_first_not_of("0123456789") == std::string_view::npos;
        host = isPort ? authority.substr(0, colon) : authority;
    }
    const bool isGood =
        host.starts_with('[') ? host.find(']') == host.size() - 1 : host.find(':') == std::string_view::npos;
    return std::string(isGood ? host : std::string_view());
}

void CheckSender(const std::string& authority, const std::string& origin) {
    if ((authority + origin).find('\0') != std::string::npos) {
        return;  // the parser of requests lets none through
    }
    const std::string host = HostPlainly(authority);
    Require(HostOf(authority) == host);
    Require(IsLoopbackName(host) == (Lower(host) == "localhost" || host == "127.0.0.1" || host == "[::1]"));
    Require(IsSameHost(authority, origin) == (Lower(authority) == Lower(origin)));
    for (const bool isTls : {false, true}) {
        const std::string scheme = isTls ? "https://" : "http://";
        Require(IsSameOrigin(origin, authority, isTls) ==
                (origin.starts_with(scheme) && Lower(origin) == scheme + Lower(authority)));
        Require(IsSameOrigin(scheme + authority, authority, isTls));
        Require(!IsSameOrigin(scheme + authority + "x", authority, isTls));
        Require(!IsSameOrigin(scheme + authority, authority, !isTls));
    }
}

// --- Names ---

bool IsName(const std::string& text, size_t longest, const std::string& marks) {
    return !text.empty() && text.size() <= longest &&
           LettersAndDigits.find(text[0]) != std::string_view::npos &&
           text.find_first_not_of(std::string(LettersAndDigits) + marks) == std::string::npos;
}

void CheckName(const std::string& name) {
    const bool isFileName = IsName(name, 128, "._-");
    Require(IsFileName(name) == isFileName);
    const auto file = Unless([&] { return FileName(name); });
    const auto container = Unless([&] { return ContainerName(name); });
    Require(isFileName ? file == name && container == name : !file && !container);
    const auto image = Unless([&] { return ImageInUrl(name); });
    bool isImage = IsName(name, 255, "._:/@-");
    for (const char* part : {"..", "//", "/."}) {
        isImage = isImage && name.find(part) == std::string::npos;
    }
    Require(image.has_value() == isImage);
    Require(!image ||
            (image->find_first_of("/?#& ") == std::string::npos && PercentDecode(*image, false) == name));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    Fuzz::Hide("/mnt");
    MakePage();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    auto lines = Split(std::string(data, data + size), '\n');
    lines.resize(4);
    const int nextDescriptor = Fuzz::NextDescriptor();
    for (const std::string& line : lines) {
        CheckDecoding(line);
    }
    if (const auto request = CheckTarget(lines[0])) {
        CheckPage(*request);
    }
    CheckSender(lines[1], lines[2]);
    CheckName(lines[3]);
    Require(Fuzz::NextDescriptor() == nextDescriptor);
    return 0;
}
