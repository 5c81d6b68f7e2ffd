#include "QxCHypervisor.h"

#include "CoreFigures.h"

namespace QxNHypervisor {

QxCHypervisor::QxCHypervisor() = default;
QxCHypervisor::~QxCHypervisor() = default;

QxCHypervisor* QxCHypervisor::getInstance() {
    static QxCHypervisor* const instance = new QxCHypervisor;
    return instance;
}

unsigned int QxCHypervisor::getTotalCoreCount() const {
    return QxNLinuxPlatform::readCoreOption("Hypervisor").value_or(0);
}

}  // namespace QxNHypervisor
