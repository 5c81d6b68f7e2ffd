#include "QxCContainer.h"
#include "QxCScannerBoardHw.h"
#include "QxLinuxBaseUtils.h"
#include "service/PodmanProgram.h"
#include "support/Log.h"

#include <algorithm>
#include <array>

namespace QxNContainer {

namespace {

/// A set of CPU cores, on the stack.
class CoreMask {
public:
    explicit CoreMask(unsigned int total) : _bits(std::min(total, MaxCores)) {}

    /// Adds a core; one that the board does not have is left out.
    void Add(std::uint64_t core) {
        if (core < _bits) {
            _words[core / 64] |= std::uint64_t{1} << (core % 64);
        }
    }

    QxTBitmap Bitmap() { return {_words.data(), _bits}; }

private:
    static constexpr unsigned int MaxCores = 8192;  // what the Linux kernel can be built for on x86-64

    std::array<std::uint64_t, MaxCores / 64> _words{};
    std::uint32_t _bits;
};

}  // namespace

bool QxCContainer::AssignCpuCores() {
    unsigned int total = 0;
    unsigned int usable = 0;
    unsigned int max = 0;
    int unused = 0;
    _settings->getCpuCoreCounts(total, usable, max, unused);
    QX_LOG_IF_ENABLED(RteLogLevel::Debug,
                      "Quolex Container Utils: Total CPUs: %u, Usable Cpus: %u, Max Allowed Cpus: %u", total,
                      usable, max);
    const unsigned int requested = _settings->getServiceUserSettings(false).coresNum;
    if (max < requested) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Error,
            "Quolex Container Utils: Invalid number of cores assigned to container: %u. Max allowed is %u",
            requested, max);
        return false;
    }

    CoreMask mask(total);
    const unsigned int fromUnused = unused > 0 ? std::min(requested, static_cast<unsigned int>(unused)) : 0;
    const unsigned int firstUnused = usable - 1 + (total - max);
    for (unsigned int i = 0; i < fromUnused; ++i) {
        const unsigned int core = firstUnused + i;
        mask.Add(core);
        QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                          "Quolex Container Utils: Assigning unused physical core %u to container runtime",
                          core);
    }

    const unsigned int fromLinux = requested - fromUnused;
    // Without Linux cores the scanner keeps its previous count.
    if (fromLinux > 0 && fromLinux <= max) {
        QxCScannerBoardHw::setContainerRteCoresCount(fromLinux);
        for (std::uint64_t core = 1; core <= fromLinux; ++core) {
            mask.Add(core);
            QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                              "Quolex Container Utils: Assigning usable core %u to container runtime",
                              static_cast<unsigned int>(core));
        }
    }

    const QxTBitmap bitmap = mask.Bitmap();
    QxLinuxBaseUtils_CpuSetCreate(ContainerCpuSet, &bitmap);
    QxLinuxBaseUtils_CpuSetLoadBalance(ContainerCpuSet, 1);
    return true;
}

}  // namespace QxNContainer
