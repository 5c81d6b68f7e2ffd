#include "ApiPath.h"

#include "CtlError.h"

#include <curl/curl.h>
#include <new>

std::string Escaped(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    char* const escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
    if (escaped == nullptr) {
        throw std::bad_alloc();
    }
    std::string result = escaped;
    curl_free(escaped);
    return result;
}

std::string ApiPath(std::initializer_list<std::string_view> segments,
                    std::initializer_list<std::pair<std::string_view, std::string_view>> query) {
    std::string path = "/api/v1";
    for (const std::string_view segment : segments) {
        if (segment.empty() || segment == "." || segment == "..") {
            throw CtlError(ExitCode::Usage, "'" + std::string(segment) + "' cannot be a name");
        }
        path += "/" + Escaped(segment);
    }
    char separator = '?';
    for (const auto& [name, value] : query) {
        if (!value.empty()) {
            path += separator + Escaped(name) + "=" + Escaped(value);
            separator = '&';
        }
    }
    return path;
}
