#include "PlatformOptions.h"

#include "NumberText.h"
#include "QxCCustomConfig.h"
#include "TextFormat.h"

#include <mutex>
#include <set>

namespace QxNLinuxPlatform {

namespace {

void printOnce(const std::string& text) {
    static std::mutex mutex;
    static std::set<std::string>* const printed = new std::set<std::string>;
    const std::lock_guard lock(mutex);
    if (printed->insert(text).second) {
        printNotice(text);
    }
}

}  // namespace

std::string readTextOption(const char* section, const char* option, const char* defaultValue) {
    const std::string text = QxCCustomConfig::getInstance()->getOption(section, option, "", false);
    return text.empty() ? defaultValue : text;
}

std::optional<unsigned int> readNumberOption(const char* section, const char* option, NumberRange range) {
    const std::string text = QxCCustomConfig::getInstance()->getOption(section, option, "", false);
    if (text.empty()) {
        return std::nullopt;
    }
    const std::optional<unsigned int> number = parseNumber(text);
    if (!number || *number < range.lowest || *number > range.highest) {
        printOnce(std::string(ConfigurationFile) + ": " + option + " in [" + section + "] is '" + text +
                  "', not a number from " + std::to_string(range.lowest) + " to " +
                  std::to_string(range.highest) + "; using the default");
        return std::nullopt;
    }
    return number;
}

unsigned int readNumberOption(const char* section, const char* option, unsigned int defaultValue,
                              NumberRange range) {
    return readNumberOption(section, option, range).value_or(defaultValue);
}

}  // namespace QxNLinuxPlatform
