#include "QxCScannerBoardHw.h"

#include "BlockDeviceMounts.h"
#include "CoreFigures.h"
#include "CoreList.h"
#include "FileAccess.h"
#include "MountTable.h"
#include "PlatformMessages.h"
#include "TextFormat.h"

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace QxNLinuxPlatform;

constexpr const char* ContainerCoresFile = "/run/quolex/container-cores";

std::optional<unsigned int> countSystemCores(QxCErrorListPool& errors, const char* file) {
    const std::string path = std::string("/sys/devices/system/cpu/") + file;
    const FileContent content = readFile(path);
    if (content.error != 0) {
        addError(&errors, MessageNumber::CoreCountUnknown,
                 "Cannot read '" + path + "': " + errorText(content.error));
        return std::nullopt;
    }
    const std::optional<unsigned int> count = countCores(content.text);
    if (!count) {
        addError(&errors, MessageNumber::CoreCountUnknown,
                 "'" + path + "' holds no list of cores: " + content.text);
    }
    return count;
}

/// @param option      option that overrides the kernel's figure
/// @param systemFile  the kernel's list of the cores
std::optional<unsigned int> coreCount(QxCErrorListPool& errors, const char* option, const char* systemFile) {
    const std::optional<unsigned int> configured = readCoreOption(option);
    return configured ? configured : countSystemCores(errors, systemFile);
}

}  // namespace

void QxCScannerBoardHw::getCnCoreCount(QxCErrorListPool& errors, unsigned int& total, unsigned int& usable,
                                       unsigned int& isolated) {
    total = coreCount(errors, "Total", "present").value_or(0);
    usable = coreCount(errors, "Usable", "online").value_or(0);
    isolated = coreCount(errors, "Isolated", "isolated").value_or(0);
}

void QxCScannerBoardHw::setContainerRteCoresCount(unsigned int count) {
    if (const int error = replaceFile(ContainerCoresFile, std::to_string(count) + '\n'); error != 0) {
        report(QxNSeverity::Error, MessageNumber::ContainerCoresNotRecorded,
               "Cannot write " + std::to_string(count) + " to '" + ContainerCoresFile +
                   "': " + errorText(error));
    }
}

QxSBlockDeviceMountInfo* QxCScannerBoardHw::getBlockDeviceMountInfo(QxCErrorListPool& errors) {
    const std::optional<std::vector<MountEntry>> table = readMountTable();
    if (!table) {
        addError(&errors, MessageNumber::MountTableUnreadable, "Cannot read the mount table");
        return nullptr;
    }
    return makeMountInfo(blockDeviceMounts(*table));
}
