#pragma once

#include "QxPlatformExport.h"

namespace QxNHypervisor {

/// The board's hypervisor. Thread safety: may be called from any thread.
class QX_PLATFORM_API QxCHypervisor {
public:
    QxCHypervisor(const QxCHypervisor&) = delete;
    QxCHypervisor& operator=(const QxCHypervisor&) = delete;
    virtual ~QxCHypervisor();

    /// @return the process's view of the hypervisor; never null, also on a board without one
    static QxCHypervisor* getInstance();

    /// @return how many processor cores the hypervisor keeps for itself; 0 without a hypervisor
    unsigned int getTotalCoreCount() const;

private:
    QxCHypervisor();
};

}  // namespace QxNHypervisor
