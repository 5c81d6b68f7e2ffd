#include "QxCRTELog.h"

#include "QxCCustomConfig.h"
#include "QxCErrorManager.h"
#include "QxCLogfile.h"
#include "QxCMessageManagerClient.h"
#include "support/ErrorListScope.h"

#include <strings.h>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

constexpr size_t MessageBufferSize = 1024;
constexpr int MessageNumber = 151;
constexpr const char* MessageSource = "Quolex Container Runtime";

struct LevelProperties {
    const char* name;
    int severity;  // 0: the message manager is not told
};

constexpr std::array<LevelProperties, 7> Levels{{
    {"DEBUG", 0},
    {"DEBUG_VERBOSE", 0},
    {"INFO", 0},
    {"WARNING", 0},
    {"ERROR", QxNSeverity::Error},
    {"INFO", QxNSeverity::Info},
    {"WARNING", QxNSeverity::Warning},
}};

LevelProperties PropertiesOf(int level) {
    const auto index = static_cast<unsigned int>(level);
    return index < Levels.size() ? Levels[index] : LevelProperties{"UNKNOWN", 0};
}

void NotifyMessageManager(int severity, const char* message) {
    QxNSupport::ErrorListScope errors;
    QxCErrorManager& manager = QxNSupport::ErrorManager();
    QxCErrorList* messages = manager.createMessageList(0, 1, 100, 5, 300);
    messages->setMessage(severity, 0, MessageNumber, MessageSource, "%s", message);
    QxCMessageManagerClient::getInstance()->sendMessageList(&errors.List(), messages);
    messages->reset();
    manager.deleteMessageList(messages);
}

int ConfiguredThreshold() {
    using namespace QxNCustomConfig::QxNContainerRuntime;
    const std::string level =
        QxCCustomConfig::getInstance()->getOption(pSection, pOptionLogLevel, "INFO", false);
    if (strcasecmp(level.c_str(), "DEBUG_VERBOSE") == 0) {
        return 2;
    }
    return strcasecmp(level.c_str(), "DEBUG") == 0 ? 1 : 0;
}

// Threads that race on the first query read the same option and store the same value.
std::atomic<bool> thresholdLoaded{false};
std::atomic<int> threshold{0};

}  // namespace

extern "C" void QxCRTE_LOG_Impl(int level, const char* format, ...) {
    std::array<char, MessageBufferSize> message;
    message[0] = '\0';
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);

    const LevelProperties properties = PropertiesOf(level);
    QxCLogfile::getInstance()->logPrintf("[%s] %s\n", properties.name, message.data());
    if (properties.severity != 0) {
        NotifyMessageManager(properties.severity, message.data());
    }
}

extern "C" bool QxCRTE_LOG_IsLevelEnabled(int level) {
    if (!thresholdLoaded.load(std::memory_order_acquire)) {
        threshold.store(ConfiguredThreshold(), std::memory_order_relaxed);
        thresholdLoaded.store(true, std::memory_order_release);
    }
    switch (level) {
        case RteLogLevel::Debug:
            return threshold.load(std::memory_order_relaxed) > 0;
        case RteLogLevel::DebugVerbose:
            return threshold.load(std::memory_order_relaxed) > 1;
        default:
            return true;
    }
}
