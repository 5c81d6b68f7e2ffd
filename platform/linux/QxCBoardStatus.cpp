#include "QxCBoardStatus.h"

#include "FileAccess.h"
#include "IniText.h"
#include "PlatformMessages.h"
#include "PlatformOptions.h"
#include "TextFormat.h"

#include <cerrno>
#include <optional>
#include <string>

namespace {

using namespace QxNLinuxPlatform;

constexpr const char* Section = "Status";
constexpr const char* RealtimeOption = "RealtimeApplicationLoaded";

int readRealtimeState(QxCErrorListPool& errors) {
    const std::string path = readTextOption(Section, "File", "/run/quolex/board-status");
    const FileContent file = readFile(path);
    if (file.error == ENOENT || file.error == ENOTDIR) {
        return 0;
    }
    if (file.error != 0) {
        addError(&errors, MessageNumber::BoardStateUnknown,
                 "Cannot read '" + path + "': " + errorText(file.error));
        return 0;
    }
    const IniText status = IniText::parse(file.text);
    const std::optional<std::string> text = status.option(Section, RealtimeOption);
    if (!text && status.firstBadLine() == 0) {
        return 0;
    }
    if (text == "0" || text == "1") {
        return text == "1" ? 1 : 0;
    }
    addError(&errors, MessageNumber::BoardStateUnknown,
             "'" + path + "' does not say whether " + RealtimeOption + " is 0 or 1");
    return 0;
}

}  // namespace

int QxCBoardStatus::getState(QxCErrorListPool& errors, int selector, int instance) {
    if (selector != RealtimeApplicationLoaded || instance != 0) {
        addError(&errors, MessageNumber::ArgumentNotSupported,
                 "There is no board state " + std::to_string(selector) + " of instance " +
                     std::to_string(instance));
        return 0;
    }
    return readRealtimeState(errors);
}
