#include "QxCCustomConfig.h"

#include "FileAccess.h"
#include "IniText.h"
#include "PlatformOptions.h"
#include "TextFormat.h"

#include <cerrno>
#include <memory>
#include <mutex>

namespace {

using namespace QxNLinuxPlatform;

/// What is in memory of the configuration file.
struct Configuration {
    std::mutex mutex;
    bool loaded = false;
    IniText options;
};

Configuration& configuration() {
    // Never destroyed: destructors of other static objects may still ask for options.
    static Configuration* const instance = new Configuration;
    return *instance;
}

IniText readConfiguration() {
    const FileContent file = readFile(ConfigurationFile);
    if (file.error != 0) {
        if (file.error != ENOENT && file.error != ENOTDIR) {
            printNotice(std::string(ConfigurationFile) + ": " + errorText(file.error) +
                        "; using the defaults");
        }
        return {};
    }
    IniText options = IniText::parse(file.text);
    if (options.firstBadLine() != 0) {
        printNotice(std::string(ConfigurationFile) + ":" + std::to_string(options.firstBadLine()) +
                    ": neither a section nor an option; lines of this kind are left out");
    }
    return options;
}

}  // namespace

QxCCustomConfig::QxCCustomConfig() = default;
QxCCustomConfig::~QxCCustomConfig() = default;

QxCCustomConfig* QxCCustomConfig::getInstance() {
    static QxCCustomConfig* const instance = new QxCCustomConfig;
    return instance;
}

std::string QxCCustomConfig::getOption(const char* section, const char* option, const char* defaultValue,
                                       bool reread) {
    std::string fallback = defaultValue != nullptr ? defaultValue : "";
    if (section == nullptr || option == nullptr) {
        return fallback;
    }
    Configuration& current = configuration();
    const std::lock_guard lock(current.mutex);
    if (reread || !current.loaded) {
        current.options = readConfiguration();
        current.loaded = true;
    }
    return current.options.option(section, option).value_or(fallback);
}
