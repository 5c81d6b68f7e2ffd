#include "CacheModes.h"
#include "PodmanOnBoard.h"

#include <thread>

using namespace OnBoard;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class PodmanRequests : public PodmanOnBoard {
protected:
    PodmanResponse Import(const std::string& name, bool writeThrough) {
        return service.ExecutePodmanRequest("/libpod/images/import?reference=localhost/" + name + ":1", Post,
                                            {"Content-Type: application/x-tar"}, "/opt/board/busybox.tar",
                                            writeThrough);
    }
};

TEST_F(PodmanRequests, InspectAndList) {
    Run("talker", "sleep 100");

    const PodmanResponse list = Ask(Get, "/containers/json?all=true");
    const PodmanResponse inspection = Ask(Get, "/containers/talker/json");

    EXPECT_EQ(list.httpCode, 200);
    EXPECT_THAT(list.body, HasSubstr("talker"));
    EXPECT_EQ(inspection.httpCode, 200);
    const QxNJson::json container = QxNJson::json::parse(inspection.body);
    EXPECT_EQ(container["State"]["Status"].get<std::string>(), "running");
}

TEST_F(PodmanRequests, StartStopAndDeleteWithoutABody) {
    Output("podman create --name sleeper --network=none localhost/busybox:1 sleep 100");

    EXPECT_EQ(Ask(Post, "/containers/sleeper/start").httpCode, 204);
    EXPECT_EQ(Ask(Post, "/containers/sleeper/start").httpCode, 304);
    EXPECT_EQ(Ask(Post, "/containers/sleeper/stop?t=0").httpCode, 204);
    EXPECT_EQ(Ask(Delete, "/containers/sleeper").httpCode, 204);
    EXPECT_EQ(Ask(Get, "/containers/sleeper/json").httpCode, 404);
}

TEST_F(PodmanRequests, ImportAnImageInWriteThroughMode) {
    ASSERT_EQ(Output("cat " + std::string(WriteCache)), "write back");
    CacheModes modes;

    const PodmanResponse response = Import("uploaded", true);

    EXPECT_THAT(modes.Seen(), ElementsAre("write back\n", "write through\n"));
    EXPECT_EQ(response.httpCode, 200) << response.body;
    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
    EXPECT_EQ(Output("podman run --rm --network=none localhost/uploaded:1 echo works"), "works");
}

TEST_F(PodmanRequests, ImportAnImageInWriteBackModeUnlessAskedOtherwise) {
    CacheModes modes;
    EXPECT_EQ(Import("uploaded", false).httpCode, 200);
    EXPECT_THAT(modes.Seen(), ElementsAre("write back\n"));
}

TEST_F(PodmanRequests, TellThatAContainerDoesNotExist) {
    const PodmanResponse response = Ask(Get, "/containers/ghost/json");

    EXPECT_EQ(response.httpCode, 404);
    EXPECT_THAT(response.body, HasSubstr("no such container"));
    EXPECT_FALSE(service.IsContainerTty("ghost"));
    EXPECT_THAT(Messages(), testing::Contains("3 Quolex Container Service: Podman GET /containers/ghost/json "
                                              "failed with HTTP 404, assuming no TTY"));
}

TEST_F(PodmanRequests, SurviveBadEndpoints) {
    const auto before = OpenDescriptors();

    for (const char* endpoint : {"/containers/a b/json", "/containers/a\r\nX: y/json", "/\n", "/a\tb"}) {
        EXPECT_EQ(Ask(Get, endpoint).httpCode, 0) << endpoint;
    }
    for (const std::string& endpoint : {std::string(), std::string("containers"), std::string("/%zz"),
                                        "/containers/" + std::string(100000, 'a') + "/json"}) {
        const PodmanResponse response = Ask(Get, endpoint);
        EXPECT_TRUE(response.httpCode == 0 || response.httpCode >= 400) << response.httpCode;
    }
    EXPECT_EQ(Ask(Get, "/libpod/_ping").body, "OK") << "Podman still answers";
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(PodmanRequests, SurviveUploadsThatCannotBeRead) {
    const auto before = OpenDescriptors();
    for (const char* file : {"/tmp/missing", "/tmp", "/dev/null"}) {
        const PodmanResponse response =
            service.ExecutePodmanRequest("/libpod/images/import?reference=localhost/bad:1", Post,
                                         {"Content-Type: application/x-tar"}, file, true);
        EXPECT_GT(response.httpCode, 0) << file;
    }
    EXPECT_THAT(Messages(),
                testing::IsSupersetOf({"3 Quolex Container CURL Handler:Error opening file: /tmp/missing\n",
                                       "3 Quolex Container CURL Handler:Error opening file: /tmp\n"}));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
}

TEST(PodmanRequestsWithoutPodman, GiveNothing) {
    const PodmanResponse response = QxNContainer::QxCContainer::GetInstance().ExecutePodmanRequest(
        "/libpod/_ping", QxCCurlHandler::Get, {}, {}, true);

    EXPECT_EQ(response.httpCode, 0);
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(Output("cat " + std::string(WriteCache)), "write back");
}

}  // namespace
