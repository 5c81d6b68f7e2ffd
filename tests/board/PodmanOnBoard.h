#pragma once

#include "BoardTest.h"

#include <string>

namespace OnBoard {

/// A running container service with the image "localhost/busybox:1".
class PodmanOnBoard : public testing::Test {
protected:
    static constexpr auto Get = QxCCurlHandler::Get;
    static constexpr auto Post = QxCCurlHandler::Post;
    static constexpr auto Delete = QxCCurlHandler::Delete;

    void SetUp() override {
        WriteSettings(R"({"enabled": true})");
        ASSERT_TRUE(service.init());
        ASSERT_TRUE(service.Start());
        ASSERT_TRUE(PodmanAnswers());
        ASSERT_TRUE(Logged("Spawned Podman correctly"));
        ImportBusybox();
    }
    void TearDown() override { service.Stop(); }

    PodmanResponse Ask(QxCCurlHandler::MethodType method, const std::string& endpoint) {
        return service.ExecutePodmanRequest(endpoint, method, {}, {}, false);
    }

    /// Starts a container that runs a shell script; it stops at once.
    static void Run(const std::string& name, const std::string& script, const std::string& options = {}) {
        Output("podman run -d --name " + name + " --network=none --stop-signal=KILL " + options +
               " localhost/busybox:1 sh -c '" + script + "'");
    }

    QxNContainer::QxCContainer& service = QxNContainer::QxCContainer::GetInstance();
};

}  // namespace OnBoard
