#pragma once

#include "QxCErrorList.h"
#include "QxExport.h"

#include <optional>
#include <string>

namespace QxNContainer {

/// Keeps the user storage disk in write-through mode for its lifetime, so that what a request wrote survives
/// a power cut, and puts it back into write-back mode with a sync.
///
/// Does nothing while a real-time application is loaded, or when the disk cannot be found. Guards are not
/// counted: of two that overlap, the first to end switches the disk back. The switch is the kernel's block
/// queue attribute "write_cache" (Documentation/ABI/stable/sysfs-block).
///
/// Errors: an attribute that cannot be opened gives a warning line in the log; nothing is raised. Thread safety: no shared state;
/// one guard belongs to one thread at a time. Blocks for sysfs access, and for sync() when it ends.
class QX_EXPORT QxCWriteThroughCacheGuard {
public:
    /// Switches the disk to write-through, if allowed.
    QxCWriteThroughCacheGuard();
    /// Takes over what `other` owes; `other` owes nothing afterwards.
    QxCWriteThroughCacheGuard(QxCWriteThroughCacheGuard&& other) noexcept;
    QxCWriteThroughCacheGuard(const QxCWriteThroughCacheGuard&) = delete;
    QxCWriteThroughCacheGuard& operator=(const QxCWriteThroughCacheGuard&) = delete;
    QxCWriteThroughCacheGuard& operator=(QxCWriteThroughCacheGuard&&) = delete;
    /// Switches the disk back, if this guard switched it.
    ~QxCWriteThroughCacheGuard();

    /// @param enable  false gives an empty optional and touches nothing
    static std::optional<QxCWriteThroughCacheGuard> Create(bool enable);

    /// Puts the user storage disk into write-back mode, whatever guards there are and whatever the board
    /// runs.
    static void ForceRestoreWriteBackMode();

    /// @param errors  receives the error when the board's state cannot be had
    /// @return whether a real-time application is loaded on the board
    static bool IsRealtimeApplicationLoaded(QxCErrorListPool& errors);

    /// @param errors  receives the error when the mounts cannot be had
    /// @return the write-cache attribute of the disk that holds "/userstorage1"; empty when there is none
    static std::string GetUserStorageWriteCacheSysfsPath(QxCErrorListPool& errors);

    /// Writes the mode into the attribute and, for "write back", syncs the file systems.
    /// @param sysfsPath  the attribute; empty does nothing
    /// @param mode       "write through" or "write back"
    static void SetBlockDeviceWriteCache(const std::string& sysfsPath, const char* mode);

private:
    std::optional<std::string> _switchedPath;  // engaged = this guard owes the switch back
};

}  // namespace QxNContainer
