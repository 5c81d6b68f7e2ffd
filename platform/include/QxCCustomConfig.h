#pragma once

#include "QxPlatformExport.h"

#include <string>

/// Names of the options in the board's custom configuration.
namespace QxNCustomConfig::QxNContainerRuntime {
inline constexpr const char* pSection = "ContainerRuntime";
/// "INFO" (default), "DEBUG" or "DEBUG_VERBOSE", without regard to case.
inline constexpr const char* pOptionLogLevel = "LogLevel";
}  // namespace QxNCustomConfig::QxNContainerRuntime

/// The board's custom configuration: text options in named sections.
///
/// Thread safety: may be called from any thread.
class QX_PLATFORM_API QxCCustomConfig {
public:
    QxCCustomConfig(const QxCCustomConfig&) = delete;
    QxCCustomConfig& operator=(const QxCCustomConfig&) = delete;
    virtual ~QxCCustomConfig();

    /// @return the process's configuration; never null
    static QxCCustomConfig* getInstance();

    /// @param section       section name
    /// @param option        option name
    /// @param defaultValue  returned when the option is not set
    /// @param reread        true: read the configuration source again first; false: use what is in memory
    /// @return the configured text, or the default
    std::string getOption(const char* section, const char* option, const char* defaultValue, bool reread);

private:
    QxCCustomConfig();
};
