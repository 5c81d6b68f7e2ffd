#include "QxCLogfile.h"

#include "PlatformOptions.h"
#include "TextFormat.h"

#include <fcntl.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace {

using namespace QxNLinuxPlatform;

/// The log file must not be inherited by the programs that the process starts.
void closeOnExec(const spdlog::filename_t&, std::FILE* file) { ::fcntl(::fileno(file), F_SETFD, FD_CLOEXEC); }

spdlog::sink_ptr openSink() {
    const std::string path = readTextOption("Log", "File", "/var/log/quolex/container.log");
    const unsigned int maxBytes =
        readNumberOption("Log", "MaxBytes", 1024 * 1024, {4096, 1024 * 1024 * 1024});
    const unsigned int files = readNumberOption("Log", "Files", 3, {1, 100});
    spdlog::file_event_handlers handlers;
    handlers.after_open = closeOnExec;
    try {
        return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maxBytes, files - 1, false,
                                                                      handlers);
    } catch (const spdlog::spdlog_ex& failure) {
        printNotice(std::string("Logging to the standard error output: ") + failure.what());
        return std::make_shared<spdlog::sinks::stderr_sink_mt>();
    }
}

spdlog::logger& logger() {
    // Never destroyed: destructors of other static objects may still log.
    static spdlog::logger* const instance = [] {
        auto* const created = new spdlog::logger("quolex", openSink());
        created->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %t %v");
        created->flush_on(spdlog::level::trace);
        return created;
    }();
    return *instance;
}

}  // namespace

QxCLogfile::QxCLogfile() = default;
QxCLogfile::~QxCLogfile() = default;

QxCLogfile* QxCLogfile::getInstance() {
    static QxCLogfile* const instance = new QxCLogfile;
    return instance;
}

void QxCLogfile::logPrintf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::optional<std::string> text = formatText(format, arguments);
    va_end(arguments);
    text->erase(text->find_last_not_of('\n') + 1);
    logger().log(spdlog::level::info, spdlog::string_view_t(*text));
}
