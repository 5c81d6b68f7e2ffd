#include "QxCCTESettings.h"

#include "QxCErrorList.h"
#include "QxCHypervisor.h"
#include "QxCScannerBoardHw.h"
#include "QxNContainerPaths.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"
#include "support/OutputFile.h"

#include <filesystem>
#include <fstream>
#include <limits>

namespace {

using QxNJson::json;

// Numbers beyond the 32 bits of the members wrap like a conversion; only a floating value needs care, since
// converting one that does not fit is undefined.
std::int32_t ToInt32(const json& value) {
    if (!value.is_number_float()) {
        return value.get<int>();
    }
    using Limits = std::numeric_limits<std::int32_t>;
    const double number = value.get<double>();
    if (number <= Limits::min()) {
        return Limits::min();
    }
    return number >= Limits::max() ? Limits::max() : static_cast<std::int32_t>(number);
}

std::uint32_t ToUint32(const json& value) { return static_cast<std::uint32_t>(ToInt32(value)); }

}  // namespace

QxCCTESettings* QxCCTESettings::GetInstance() {
    static QxCCTESettings instance;
    return &instance;
}

QxCCTESettings::QxCCTESettings() : _filePath(QxNContainer::QxNContainerPaths::SETTINGS_FILE) {
    _Read();
    setState(ContainerServiceState::NotInitialized);
    ExtractCpuCoreCounts();
}

bool QxCCTESettings::getEnabled(bool reread) {
    if (reread) {
        _Read();
    }
    return _enabled;
}

int QxCCTESettings::getState(bool reread) {
    if (reread) {
        _Read();
    }
    return _state;
}

QxCCTESettings::QxSUserSettings QxCCTESettings::getServiceUserSettings(bool reread) {
    if (reread) {
        _Read();
    }
    return _userSettings;
}

bool QxCCTESettings::setEnabled(bool enabled) {
    _enabled = enabled;
    return _Write();
}

bool QxCCTESettings::setState(int state) {
    _state = state;
    return _Write();
}

bool QxCCTESettings::setServiceUserSettings(const QxSUserSettings& settings) {
    _userSettings = settings;
    return _Write();
}

void QxCCTESettings::getCpuCoreCounts(unsigned int& total, unsigned int& usable, unsigned int& maxAllowed,
                                      int& unused) {
    total = _totalCoreCount;
    usable = _usableCoreCount;
    maxAllowed = _maxCpuCoreCount;
    unused = _unusedPhysicalCoreCount;
}

unsigned int QxCCTESettings::getMaxCpuCoreCount() const { return _maxCpuCoreCount; }

bool QxCCTESettings::ExtractCpuCoreCounts() {
    QxNSupport::ErrorListScope errors;
    const unsigned int errorsBefore = errors.List().getErrorCount();
    unsigned int isolated = 0;
    QxCScannerBoardHw::getCnCoreCount(errors.List(), _totalCoreCount, _usableCoreCount, isolated);
    if (errors.List().getErrorCount() > errorsBefore) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: Failed to get CPU core count");
        return false;
    }
    const unsigned int hypervisor = QxNHypervisor::QxCHypervisor::getInstance()->getTotalCoreCount();
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Utils: Hypervisor Cpus: %u", hypervisor);

    _unusedPhysicalCoreCount = static_cast<std::int32_t>(_totalCoreCount - _usableCoreCount - hypervisor);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Utils: Unused physical cores available: %d",
                      _unusedPhysicalCoreCount);

    _maxCpuCoreCount = _totalCoreCount - hypervisor - 1;
    return _Write();
}

void QxCCTESettings::_Read() {
    if (!std::filesystem::exists(_filePath)) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                          "Quolex Container Service: Settings file '%s' not found, using defaults",
                          _filePath.c_str());
        return;
    }
    std::ifstream file(_filePath);
    if (!file) {
        QxCRTE_LOG_Impl(RteLogLevel::Warning,
                        "Quolex Container Service: QxCCTESettings::Read: cannot open '%s', using defaults",
                        _filePath.c_str());
        return;
    }
    const json settings = json::parse(file);
    if (settings.is_invalid()) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Warning,
            "Quolex Container Service: QxCCTESettings::Read: failed to parse '%s', using defaults",
            _filePath.c_str());
        return;
    }
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Service: Parsed settings from '%s': %s",
                      _filePath.c_str(), settings.dump().c_str());

    if (settings.contains("enabled") && settings["enabled"].is_boolean()) {
        _enabled = settings["enabled"].get<bool>();
    }
    if (settings.contains("tcp_port") && settings["tcp_port"].is_number()) {
        _userSettings.tcpPort = ToUint32(settings["tcp_port"]);
    }
    if (settings.contains("cores_num") && settings["cores_num"].is_number()) {
        _userSettings.coresNum = ToUint32(settings["cores_num"]);
    }
    if (settings.contains("state") && settings["state"].is_number()) {
        _state = ToInt32(settings["state"]);
    }
}

bool QxCCTESettings::_Write() const {
    static const std::filesystem::path directory = std::filesystem::path(_filePath).parent_path();
    std::filesystem::create_directories(directory);
    // Before the file is emptied: when memory runs out here, the settings stay as they were.
    const std::string text = _ToJson().dump(4);
    QxNSupport::OutputFile file(_filePath);
    if (!file) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Service: QxCCTESettings::Write: cannot open '%s' for writing",
                        _filePath.c_str());
        return false;
    }
    file << text;
    // Without the flush a full drive would only show when the stream closes, which reports to nobody.
    file.flush();
    return file.good();
}

json QxCCTESettings::_ToJson() const {
    json settings = json::object();
    settings["enabled"] = _enabled.load();
    settings["tcp_port"] = _userSettings.tcpPort;
    settings["cores_num"] = _userSettings.coresNum;
    settings["state"] = _state.load();
    settings["max_cpu_core_count"] = _maxCpuCoreCount;
    return settings;
}
