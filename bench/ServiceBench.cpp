// Saving the settings, and the service's own part of its life: init() of a board that was initialised before, and Stop()
// of a service that was not started. Neither runs a program. Beside them the same system calls with texts that are
// finished beforehand.

#include "QxCCTESettings.h"
#include "QxCContainer.h"
#include "RunInSandbox.h"
#include "tests/unit/Board.h"

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <string>

// Stop() ends with it; the drives of this machine are not to be measured.
extern "C" void sync() {}

namespace {

using QxNContainer::QxCContainer;

QxCContainer& Service() {
    static QxCContainer& service = []() -> QxCContainer& {
        Board::ProvideContainerSystem();
        QxCContainer& made = QxCContainer::GetInstance();
        made.init();
        return made;
    }();
    return service;
}

/// What the recording platform has noted of one operation is forgotten now and then, outside of the time that counts.
template <typename Operation>
void Repeat(benchmark::State& state, Operation operation) {
    constexpr int OperationsBetweenPauses = 256;
    Service();
    int count = 0;
    for (auto _ : state) {
        if (!operation()) {
            state.SkipWithError("failed");
            break;
        }
        if (++count % OperationsBetweenPauses == 0) {
            state.PauseTiming();
            Recording::Forget();
            state.ResumeTiming();
        }
    }
}

bool Exists(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

bool WriteBare(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(file) == 0 && written;
}

bool ReadBare(const std::string& path) {
    char text[8191];
    const int file = open(path.c_str(), O_RDONLY);
    while (read(file, text, sizeof(text)) > 0) {
    }
    return close(file) == 0;
}

void ListBare(const std::string& path) {
    if (DIR* directory = opendir(path.c_str())) {
        while (readdir(directory) != nullptr) {
        }
        closedir(directory);
    }
}

const std::string& SettingsText() {
    static const std::string text = (Service(), Board::Settings());
    return text;
}

bool SaveBare() {
    return Exists("/mnt/cfdrive/containers") && WriteBare(Board::SETTINGS_FILE, SettingsText());
}

void SaveOurs(benchmark::State& state) {
    Repeat(state, [] { return QxCCTESettings::GetInstance()->setEnabled(true); });
}
void SaveTheBare(benchmark::State& state) {
    SettingsText();
    Repeat(state, SaveBare);
}
BENCHMARK(SaveOurs)->Name("SettingsSave/ours");
BENCHMARK(SaveTheBare)->Name("SettingsSave/bare");

/// Links are tried although they are there.
void LinkBare() {
    constexpr const char* links[] = {"/bin/podman",
                                     "/bin/crun",
                                     "/usr/bin/conmon",
                                     "/bin/docker-compose",
                                     "/var/lib/containers",
                                     "/etc/containers/policy.json",
                                     "/etc/containers/containers.conf",
                                     "/etc/containers/storage.conf",
                                     "/etc/containers/certs"};
    for (const char* link : links) {
        [[maybe_unused]] const int made = symlink("/mnt/containers_tools/nothing", link);
    }
}

bool InitBare() {
    Exists(Board::SETTINGS_FILE);
    ReadBare(Board::SETTINGS_FILE);
    for (const char* path : {"/userstorage1", "/userstorage1/..", Board::CONTAINER_TOOLS.c_str(),
                             Board::CONTAINER_TOOLS_MOUNTPOINT.c_str()}) {
        Exists(path);
    }
    LinkBare();
    for (const char* path :
         {"/opt/cni/bin", "/var/lib", "/userstorage1/container_rte/containers",
          "/userstorage1/container_rte/tmp", "/etc/containers", Board::CONTAINER_CERTS_DIR.c_str()}) {
        Exists(path);
    }
    ListBare(Board::CNI_PLUGINS);
    chmod(Board::CONTAINER_CERTS_DIR.c_str(), 0600);
    WriteBare("/run/QxContainerRTE.docker_host", "unix:///run/podman/podman.sock");
    ListBare(Board::PLUGINS_DIR);
    ListBare("/usr/Quolex/container/plugins");
    return SaveBare();
}

void InitOurs(benchmark::State& state) {
    Repeat(state, [] { return Service().init(); });
}
void InitTheBare(benchmark::State& state) {
    SettingsText();
    Repeat(state, InitBare);
}
BENCHMARK(InitOurs)->Name("InitAgain/ours");
BENCHMARK(InitTheBare)->Name("InitAgain/bare");

bool StopBare() {
    const bool saved = SaveBare();
    return WriteBare(Board::WriteCache, "write back") && saved;
}

void StopOurs(benchmark::State& state) {
    Repeat(state, [] { return Service().Stop(); });
}
void StopTheBare(benchmark::State& state) {
    SettingsText();
    Repeat(state, StopBare);
}
BENCHMARK(StopOurs)->Name("StopUnstarted/ours")->UseRealTime();
BENCHMARK(StopTheBare)->Name("StopUnstarted/bare")->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmarksInSandbox(argc, argv, [] {});
}
