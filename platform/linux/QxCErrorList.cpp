#include "QxCErrorList.h"

#include "ErrorListImpl.h"
#include "TextFormat.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <optional>
#include <utility>

namespace {

std::size_t atLeastZero(int value) { return static_cast<std::size_t>(std::max(value, 0)); }

long long millisecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

QxCErrorList::Impl::Impl(int entries, int entryBytes)
    : maxEntries(atLeastZero(entries)), maxTextBytes(maxEntries * atLeastZero(entryBytes)) {}

std::vector<QxSMessage> QxCErrorList::Impl::take() {
    const std::lock_guard lock(mutex);
    textBytes = 0;
    errorCount = 0;
    return std::exchange(messages, {});
}

QxCErrorList::QxCErrorList(int maxEntries, int maxEntryBytes)
    : _impl(std::make_unique<Impl>(maxEntries, maxEntryBytes)) {}

QxCErrorList::~QxCErrorList() = default;

void QxCErrorList::setMessage(int severity, int /*group*/, int number, const char* source, const char* format,
                              ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::optional<std::string> text = QxNLinuxPlatform::formatText(format, arguments, _impl->maxTextBytes);
    va_end(arguments);

    const std::lock_guard lock(_impl->mutex);
    if (severity == QxNSeverity::Error) {
        ++_impl->errorCount;
    }
    const bool fits = text && _impl->messages.size() < _impl->maxEntries &&
                      text->size() <= _impl->maxTextBytes - _impl->textBytes;
    if (!fits) {
        return;
    }
    const std::size_t textSize = text->size();
    _impl->messages.push_back(
        {millisecondsNow(), severity, number, source != nullptr ? source : "", std::move(*text)});
    _impl->textBytes += textSize;
}

unsigned QxCErrorList::getErrorCount() const {
    const std::lock_guard lock(_impl->mutex);
    return _impl->errorCount;
}

std::vector<QxSMessage> QxCErrorList::getMessages() const {
    const std::lock_guard lock(_impl->mutex);
    return _impl->messages;
}

void QxCErrorList::reset() { _impl->take(); }
