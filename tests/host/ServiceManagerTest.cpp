#include "host/daemon/ServiceManager.h"

#include "Interruptions.h"
#include "support/UniqueFd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

using std::chrono::milliseconds;

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
    timeval limit{60, 0};
    setsockopt(manager.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));

    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(300));
        char text[16] = "";
        while (strcmp(text, "READY=1") != 0) {
            memset(text, 0, sizeof(text));
            ASSERT_TRUE(recv(manager.Get(), text, sizeof(text), 0) > 0 || errno == EINTR);
        }
    });
    {
        const Interruptions interruptions;
        told.Tell("READY=1");
    }
    reader.join();
}

}  // namespace
