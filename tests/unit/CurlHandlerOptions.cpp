#include "CurlHandlerOptions.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <mutex>

#undef curl_easy_setopt

namespace {

std::atomic<bool> isRecording{false};
std::mutex entriesMutex;
std::vector<std::string> entries;
void (*cleanupCallback)() = nullptr;
std::atomic<int> fstatsUntilFailure{-1};

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Add(const std::string& entry) {
    if (isRecording) {
        const std::lock_guard lock(entriesMutex);
        entries.push_back(entry);
    }
}

std::string TextOf(const curl_easyoption& option, const void* value) {
    if (value == nullptr) {
        return "null";
    }
    if (option.type == CURLOT_STRING) {
        return static_cast<const char*>(value);
    }
    if (option.type != CURLOT_SLIST) {
        return "set";
    }
    std::string text;
    for (const auto* item = static_cast<const curl_slist*>(value); item != nullptr; item = item->next) {
        text.append(text.empty() ? "" : "|").append(item->data);
    }
    return text;
}

}  // namespace

namespace CurlOptions {

void Record() {
    const std::lock_guard lock(entriesMutex);
    entries.clear();
    isRecording = true;
}

std::vector<std::string> Recorded() {
    const std::lock_guard lock(entriesMutex);
    return entries;
}

void OnCleanup(void (*callback)()) { cleanupCallback = callback; }

void FailFstatAfter(int passing) { fstatsUntilFailure = passing; }

}  // namespace CurlOptions

// The library under test finds these before those of libcurl.

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    static auto* const real = Real<CURLcode(CURL*, CURLoption, ...)>("curl_easy_setopt");
    const curl_easyoption* info = curl_easy_option_by_id(option);
    va_list arguments;
    va_start(arguments, option);
    CURLcode result = CURLE_OK;
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        const long value = va_arg(arguments, long);
        Add(std::string(info->name) + "=" + std::to_string(value));
        result = real(handle, option, value);
    } else if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
        const curl_off_t value = va_arg(arguments, curl_off_t);
        Add(std::string(info->name) + "=" + std::to_string(value));
        result = real(handle, option, value);
    } else {
        void* value = va_arg(arguments, void*);
        Add(std::string(info->name) + "=" + TextOf(*info, value));
        result = real(handle, option, value);
    }
    va_end(arguments);
    return result;
}

CURLcode curl_easy_perform(CURL* handle) {
    static auto* const real = Real<CURLcode(CURL*)>("curl_easy_perform");
    Add("perform");
    return real(handle);
}

void curl_easy_cleanup(CURL* handle) {
    static auto* const real = Real<void(CURL*)>("curl_easy_cleanup");
    Add("cleanup");
    if (cleanupCallback != nullptr) {
        cleanupCallback();
    }
    real(handle);
}

// Under the name that it has with 64-bit file sizes.
int fstat(int descriptor, struct stat* info) {
    static auto* const real = Real<int(int, struct stat*)>("fstat64");
    if (fstatsUntilFailure >= 0 && fstatsUntilFailure-- == 0) {
        errno = EIO;
        return -1;
    }
    return real(descriptor, info);
}
