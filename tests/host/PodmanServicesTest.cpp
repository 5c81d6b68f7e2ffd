#include "host/daemon/PodmanServices.h"

#include "Interruptions.h"
#include "Sandbox.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::IsEmpty;

TEST(PodmanServices, AreCollectedWhateverSignalsCome) {
    const Interruptions interruptions;
    for (int round = 0; round < 200; ++round) {
        // Known by its arguments, and not before it stops.
        const QxNSupport::SpawnResult child =
            QxNSupport::Spawn("/bin/sh", {"podman", "-c", "kill -STOP $$", "system", "service", "x"});
        ASSERT_EQ(TEMP_FAILURE_RETRY(waitpid(child.pid, nullptr, WUNTRACED)), child.pid);
        ASSERT_EQ(EndPodmanServices(), 1) << "round " << round;
    }
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

}  // namespace
