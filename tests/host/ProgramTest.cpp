#include "Interruptions.h"
#include "Sandbox.h"
#include "host/api/Program.h"
#include "host/daemon/PodmanServices.h"
#include "host/daemon/ServiceManager.h"
#include "support/ChildProcess.h"
#include "support/ProcessEnd.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using testing::IsEmpty;

TEST(Program, GivesWhatItPrintsAndItsCode) {
    const ProgramOutcome outcome =
        RunProgram("/bin/sh", {"sh", "-c", "cat; echo more >&2; exit 3"}, "text\n", seconds(60));

    EXPECT_TRUE(outcome.hasStarted);
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.output, "text\nmore\n");
}

TEST(Program, ThatCannotBeStartedIsSaidSo) {
    EXPECT_FALSE(RunProgram("/no/such/program", {"program"}, "", seconds(60)).hasStarted);
}

TEST(Program, EndsAtItsDeadlineAndNotBeforeWhateverSignalsCome) {
    const Interruptions interruptions;
    const auto begin = Clock::now();

    const ProgramOutcome outcome = RunProgram("/bin/sleep", {"sleep", "1000"}, "", milliseconds(500));

    EXPECT_EQ(outcome.exitCode, -1);
    EXPECT_GE(Clock::now() - begin, milliseconds(500));
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(ProcessEnd, IsAwaitedWhateverSignalsCome) {
    const Interruptions interruptions;
    const QxNSupport::SpawnResult child = QxNSupport::Spawn("/bin/sh", {"sh", "-c", "exec sleep 0.3"});
    const QxNSupport::UniqueFd process = QxNSupport::OpenPidfd(child.pid);

    EXPECT_TRUE(QxNSupport::AwaitEnd(process.Get(), Clock::now() + seconds(60)));

    EXPECT_EQ(waitpid(child.pid, nullptr, WNOHANG), child.pid);
}

TEST(ProcessEnd, IsAwaitedUntilTheDeadlineOnly) {
    const Interruptions interruptions;
    const auto begin = Clock::now();

    EXPECT_FALSE(QxNSupport::AwaitEnd(QxNSupport::OpenPidfd(getpid()).Get(), begin + milliseconds(300)));
    EXPECT_GE(Clock::now() - begin, milliseconds(300));
    EXPECT_FALSE(QxNSupport::AwaitEnd(-1, begin + milliseconds(400))) << "nothing to wait for";
    EXPECT_GE(Clock::now() - begin, milliseconds(400));
    EXPECT_FALSE(QxNSupport::AwaitEnd(-1, begin)) << "a deadline in the past";
}

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

TEST(ServiceManager, HearsWhatItHadNoRoomForAtFirstWhateverSignalsCome) {
    const QxNSupport::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM, 0));
    const QxNSupport::UniqueFd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/notify");
    const auto* const place = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(bind(manager.Get(), place, sizeof(address)), 0);
    while (sendto(other.Get(), "x", 1, 0, place, sizeof(address)) == 1) {
    }
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    const ServiceManager told;

    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(300));
        char text[16] = "";
        while (strcmp(text, "READY=1") != 0) {
            memset(text, 0, sizeof(text));
            ASSERT_TRUE(recv(manager.Get(), text, sizeof(text), 0) > 0 || errno == EINTR);
        }
    });
    timeval limit{60, 0};
    setsockopt(manager.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    {
        const Interruptions interruptions;
        told.Tell("READY=1");
    }
    reader.join();
}

}  // namespace
