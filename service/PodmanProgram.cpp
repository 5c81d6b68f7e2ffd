#include "service/PodmanProgram.h"

#include "QxNContainerPaths.h"

#include <cstdlib>

namespace QxNContainer {

void SetPodmanEnvironment() {
    setenv("LD_LIBRARY_PATH", QxNContainerPaths::PODMAN_LIBS.c_str(), 1);
    setenv("PODMAN_IGNORE_CGROUPSV1_WARNING", "1", 1);
}

}  // namespace QxNContainer
