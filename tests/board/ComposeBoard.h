#pragma once

#include "BoardTest.h"
#include "QxNJson.h"

#include <sys/stat.h>
#include <algorithm>
#include <string>
#include <vector>

/// Compose projects on a board whose service runs. Whatever a test does, no process, descriptor or temporary
/// file may be left by it.
class ComposeOnBoard : public testing::Test {
protected:
    using Operation = int (QxNContainer::QxCContainer::*)(const char*, QxNJson::json&);
    static constexpr Operation Create = &QxNContainer::QxCContainer::CreateCompose;
    static constexpr Operation Start = &QxNContainer::QxCContainer::StartCompose;
    static constexpr Operation Stop = &QxNContainer::QxCContainer::StopCompose;
    static constexpr Operation Remove = &QxNContainer::QxCContainer::RemoveCompose;

    /// Runs until it is told to end, and ends at once then.
    static constexpr const char* Loop = "trap 'exit 0' TERM; while :; do sleep 0.1; done";

    void SetUp() override {
        OnBoard::ConfigurePlatform("[ContainerRuntime]\nLogLevel=DEBUG_VERBOSE\n");
        OnBoard::WriteSettings(R"({"enabled": true})");
        ASSERT_TRUE(Service().init());
        std::filesystem::create_directories(OnBoard::COMPOSE_FILES_PATH);
        if (_withPodman) {
            ASSERT_TRUE(Service().Start());
            ASSERT_TRUE(OnBoard::PodmanAnswers());
            ASSERT_TRUE(OnBoard::Logged("Spawned Podman correctly"));
            OnBoard::ImportBusybox();
        }
        _children = OnBoard::Children();
        _descriptors = OnBoard::OpenDescriptors();
        _temporary = TemporaryFiles();
    }

    void TearDown() override {
        EXPECT_EQ(OnBoard::Children(), _children);
        EXPECT_EQ(OnBoard::OpenDescriptors(), _descriptors);
        EXPECT_EQ(TemporaryFiles(), _temporary);
        Service().Stop();
        EXPECT_THAT(OnBoard::Children(), testing::IsEmpty());
        EXPECT_THAT(OnBoard::Processes("docker-compose"), testing::IsEmpty());
    }

    static QxNContainer::QxCContainer& Service() { return QxNContainer::QxCContainer::GetInstance(); }

    /// Does an operation.
    /// @return its code and its result
    static std::string Do(Operation operation, const char* fileName) {
        QxNJson::json result;
        const int code = (Service().*operation)(fileName, result);
        return std::to_string(code) + " " + result.dump();
    }

    static std::string Result(int code, const char* status, const std::string& message,
                              const std::vector<std::pair<std::string, std::string>>& containers = {}) {
        QxNJson::json list = QxNJson::json::parse("[]");
        for (const auto& [name, state] : containers) {
            list.push_back({{"Name", name}, {"State", state}});
        }
        QxNJson::json result;
        result["Status"] = status;
        result["Message"] = message;
        result["Containers"] = list;
        return std::to_string(code) + " " + result.dump();
    }

    /// @return a success that reports these containers in one state
    static std::string Success(int code, const std::string& participle, const std::vector<std::string>& names,
                               const std::string& state) {
        std::vector<std::pair<std::string, std::string>> containers;
        for (const std::string& name : names) {
            containers.emplace_back(name, state);
        }
        return Result(code, "Success", "Containers " + participle + " successfully.", containers);
    }

    static std::string NothingDone(const std::string& participle) {
        return Result(7, "Success",
                      "Command executed successfully, but no containers were " + participle + ".");
    }

    static void WriteProject(const std::string& fileName, const std::string& text) {
        OnBoard::WriteFile(OnBoard::COMPOSE_FILES_PATH + fileName, text);
    }

    /// @return a service of a project file
    static std::string ServiceText(const std::string& name, const std::string& script,
                                   const std::string& more = {},
                                   const std::string& image = "localhost/busybox:1") {
        return "  " + name + ":\n    image: " + image +
               "\n    network_mode: none\n    command: [\"sh\", \"-c\", \"" + script + "\"]\n" + more;
    }

    /// Writes a project of services that run until they are stopped.
    static void WriteLoopingProject(const std::string& fileName, const std::vector<std::string>& services) {
        std::string text = "services:\n";
        for (const std::string& service : services) {
            text += ServiceText(service, Loop);
        }
        WriteProject(fileName, text);
    }

    /// Puts a shell script in the place of docker-compose; "$TOOL" is the real one.
    static void ReplaceTool(const std::string& script) {
        std::filesystem::remove("/bin/docker-compose");
        OnBoard::WriteFile("/bin/docker-compose",
                           "#!/bin/sh\nTOOL=" + OnBoard::DOCKER_COMPOSE + "\n" + script + "\n");
        chmod("/bin/docker-compose", 0755);
    }

    static std::vector<std::string> TemporaryFiles() {
        std::vector<std::string> files;
        for (const char* root : {"/tmp", "/root", "/userstorage1/container_rte/tmp",
                                 "/userstorage1/container_rte/utilities", "/var/tmp"}) {
            std::error_code none;
            for (const auto& entry : std::filesystem::recursive_directory_iterator(root, none)) {
                if (!entry.path().string().starts_with(OnBoard::COMPOSE_FILES_PATH)) {
                    files.push_back(entry.path());
                }
            }
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    bool _withPodman = true;

private:
    std::vector<int> _children;
    std::vector<std::string> _descriptors;
    std::vector<std::string> _temporary;
};

/// The same on a board where Podman does not run.
class ComposeWithoutPodman : public ComposeOnBoard {
protected:
    ComposeWithoutPodman() { _withPodman = false; }
};
