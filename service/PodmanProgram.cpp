#include "service/PodmanProgram.h"

#include "QxNContainerPaths.h"
#include "support/ChildProcess.h"

namespace QxNContainer {

void SetPodmanEnvironment() {
    QxNSupport::SetEnvironment("LD_LIBRARY_PATH", QxNContainerPaths::PODMAN_LIBS);
    QxNSupport::SetEnvironment("PODMAN_IGNORE_CGROUPSV1_WARNING", "1");
}

}  // namespace QxNContainer
