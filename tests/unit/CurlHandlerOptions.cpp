#include "CurlHandlerOptions.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#undef curl_easy_setopt

namespace {

std::atomic<bool> isRecording{false};
std::mutex entriesMutex;
std::vector<std::string> entries;
void (*cleanupCallback)() = nullptr;
std::atomic<int> fstatsUntilFailure{-1};
std::atomic<bool> initFails{false};
std::atomic<size_t> claimedBody{0};
std::atomic<void*> readData{nullptr};
thread_local curl_write_callback writeFunction = nullptr;
thread_local void* writeData = nullptr;

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

std::string TextOf(const curl_slist* list) {
    std::string text;
    for (const auto* item = list; item != nullptr; item = item->next) {
        text.append(text.empty() ? "" : "|").append(item->data);
    }
    return text;
}

std::string TextOf(const curl_easyoption& option, const void* value) {
    if (value == nullptr) {
        return "null";
    }
    if (option.type == CURLOT_STRING) {
        return static_cast<const char*>(value);
    }
    return option.type == CURLOT_SLIST ? TextOf(static_cast<const curl_slist*>(value)) : "set";
}

/// Keeps what the test needs of the values that were set.
void Remember(CURLoption option, void* value) {
    if (option == CURLOPT_READDATA) {
        readData = value;
    } else if (option == CURLOPT_WRITEFUNCTION) {
        writeFunction = reinterpret_cast<curl_write_callback>(value);
    } else if (option == CURLOPT_WRITEDATA) {
        writeData = value;
    }
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

void Note(const std::string& entry) { Add(entry); }

void FailInit() { initFails = true; }

void ClaimBody(size_t size) { claimedBody = size; }

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
        Remember(option, value);
        result = real(handle, option, value);
    }
    va_end(arguments);
    return result;
}

CURLcode curl_easy_perform(CURL* handle) {
    static auto* const real = Real<CURLcode(CURL*)>("curl_easy_perform");
    Add("perform");
    if (const size_t size = claimedBody.exchange(0)) {
        char first = 'x';
        return writeFunction(&first, 1, size, writeData) == size ? CURLE_OK : CURLE_WRITE_ERROR;
    }
    return real(handle);
}

CURL* curl_easy_init() {
    static auto* const real = Real<CURL*()>("curl_easy_init");
    return initFails.exchange(false) ? nullptr : real();
}

void curl_slist_free_all(curl_slist* list) {
    static auto* const real = Real<void(curl_slist*)>("curl_slist_free_all");
    Add("free " + TextOf(list));
    real(list);
}

int fclose(FILE* file) {
    static auto* const real = Real<int(FILE*)>("fclose");
    if (file == readData) {
        Add("fclose");
        readData = nullptr;
    }
    return real(file);
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
