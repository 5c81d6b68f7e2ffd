#pragma once

#include "QxExport.h"
#include "QxNJson.h"

#include <atomic>
#include <cstdint>
#include <string>

/// State of the container service, kept in the settings file under "state".
namespace ContainerServiceState {
inline constexpr int NotInitialized = 0;
inline constexpr int Initialized = 1;
inline constexpr int Running = 2;
inline constexpr int Stopped = 3;
inline constexpr int Failed = 4;
}  // namespace ContainerServiceState

/// Persistent settings and status of the container runtime, and the core figures of the board.
///
/// Backed by the JSON file QxNContainer::QxNContainerPaths::SETTINGS_FILE: every change is written through at
/// once, and a getter can read the file again first. Unknown members of the file are lost at the next write.
///
/// Errors: reading never fails (what is missing, unreadable, malformed or of the wrong type leaves the value
/// in memory as it was, with a log line); writing reports by its result and a log line, the value in memory
/// being changed all the same. Errors of the existence test and of creating the file's directory are
/// std::filesystem::filesystem_error and reach the caller.
///
/// Thread safety: getEnabled(false) and getState(false) may be called from any thread, getMaxCpuCoreCount() too
/// except while ExtractCpuCoreCounts() runs. Everything else, rereading and writing included, belongs to the
/// host's control thread, except that the monitor thread reads the user settings once when it begins. All
/// operations block for file access only.
class QX_EXPORT QxCCTESettings {
public:
    /// What the user chooses.
    struct QxSUserSettings {
        std::uint32_t tcpPort = 0;   ///< TCP port of the second Podman service; 0 = no TCP service
        std::uint32_t coresNum = 1;  ///< number of CPU cores for containers
    };

    /// @return the settings, made on first use and destroyed at process exit; never null. The first call must
    ///         come from one thread. It reads the file, sets the state to 0 and asks the board for its cores.
    static QxCCTESettings* GetInstance();

    QxCCTESettings(const QxCCTESettings&) = delete;
    QxCCTESettings& operator=(const QxCCTESettings&) = delete;

    /// @param reread  read the file again first
    bool getEnabled(bool reread);
    /// @param reread  read the file again first
    /// @return one of ContainerServiceState, or whatever the file says
    int getState(bool reread);
    /// @param reread  read the file again first
    QxSUserSettings getServiceUserSettings(bool reread);

    /// @return whether the file was written
    bool setEnabled(bool enabled);
    /// @return whether the file was written
    bool setState(int state);
    /// @return whether the file was written
    bool setServiceUserSettings(const QxSUserSettings& settings);

    /// @param total       cores of the board
    /// @param usable      cores that Linux uses: 0 to usable - 1
    /// @param maxAllowed  most cores that containers may get
    /// @param unused      cores that neither Linux nor the hypervisor uses; negative when the figures overlap
    void getCpuCoreCounts(unsigned int& total, unsigned int& usable, unsigned int& maxAllowed, int& unused);

    /// @return the most cores that containers may get
    unsigned int getMaxCpuCoreCount() const;

    /// Asks board and hypervisor for their cores, computes the figures and writes the file.
    /// @return false when the board does not know (then nothing is written) or the file could not be written
    bool ExtractCpuCoreCounts();

private:
    QxCCTESettings();

    void _Read();
    bool _Write() const;
    QxNJson::json _ToJson() const;

    std::atomic<bool> _enabled{false};
    QxSUserSettings _userSettings;
    std::atomic<std::int32_t> _state{ContainerServiceState::NotInitialized};
    std::uint32_t _totalCoreCount = 0;
    std::int32_t _unusedPhysicalCoreCount = 0;
    std::uint32_t _usableCoreCount = 0;
    std::uint32_t _maxCpuCoreCount = 0;
    std::string _filePath;
};
