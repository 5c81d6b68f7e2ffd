// Scanning a directory of many files beside a loop that only makes the same system calls, and listing many
// plugins beside their stat calls. The files lie in a file system of this process's own, in memory.

#include "CrpPluginHeader.h"
#include "QxCRPHandler.h"
#include "QxCRPScanner.h"
#include "Recording.h"

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

namespace {

std::size_t allocations = 0;

void* Allocate(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

constexpr int FileSize = 64 << 10;
constexpr int Files = 10000;
constexpr int Plugins = 1000;

void Require(bool holds, const char* what) {
    if (!holds) {
        perror(what);
        exit(1);
    }
}

void WritePlugin(int file, const std::string& name) {
    CrpPluginHeader trailer{};
    trailer.magic = CRP_PLUGIN_MAGIC;
    trailer.header_size = CRP_HEADER_SIZE;
    trailer.pluginType = CRP_PLUGIN_TYPE_SQUASHFS;
    name.copy(trailer.name, sizeof(trailer.name) - 1);
    std::strcpy(trailer.version, "1.0.0");
    Require(pwrite(file, &trailer, CRP_HEADER_SIZE, FileSize - CRP_HEADER_SIZE) == CRP_HEADER_SIZE, "write");
}

/// Makes a directory of files.
/// @param pluginsEvery  one plugin for so many files; 0: none
std::string MakeFiles(const std::string& directory, int count, int pluginsEvery) {
    static const bool hasPlace = [] {
        Require(unshare(CLONE_NEWNS) == 0, "unshare");
        Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
        Require(mount("tmpfs", "/mnt", "tmpfs", 0, nullptr) == 0, "mount");
        return true;
    }();
    Require(hasPlace, "place");
    const std::string path = "/mnt/" + directory;
    if (mkdir(path.c_str(), 0755) != 0) {
        return path;  // an earlier benchmark made it
    }
    for (int i = 0; i < count; ++i) {
        const std::string name = "file-" + std::to_string(i);
        const int file = open((path + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        Require(file >= 0 && ftruncate(file, FileSize) == 0, "file");
        if (pluginsEvery != 0 && i % pluginsEvery == 0) {
            WritePlugin(file, name);
        }
        close(file);
    }
    return path;
}

std::string MixedFiles() { return MakeFiles("mixed", Files, 100); }

std::size_t AllocationsOfScan(const std::string& directory) {
    const CRP::QxCRPScanner scanner(directory);
    std::vector<CRP::PluginInfo> found;
    scanner.scanDirectory(directory, found);  // what is set up once does not count
    const std::size_t before = allocations;
    scanner.scanDirectory(directory, found);
    const std::size_t after = allocations;
    Require(found.empty(), "plugins where there are none");
    return after - before;
}

void Scan(benchmark::State& state) {
    Require(AllocationsOfScan(MakeFiles("none-few", 100, 0)) ==
                AllocationsOfScan(MakeFiles("none-many", Files, 0)),
            "heap use grows with files that are no plugins");
    const std::string directory = MixedFiles();
    CRP::QxCRPScanner scanner(directory);
    for (auto _ : state) {
        Require(scanner.scan().size() == Files / 100, "scan");
        state.PauseTiming();
        Recording::Forget();
        state.ResumeTiming();
    }
}

bool HasMagic(const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const off_t size = lseek(file, 0, SEEK_END);
    lseek(file, size - CRP_HEADER_SIZE, SEEK_SET);
    CrpPluginHeader header;
    const bool isRead = read(file, &header, CRP_HEADER_SIZE) == CRP_HEADER_SIZE;
    close(file);
    return isRead && header.magic == CRP_PLUGIN_MAGIC;
}

void CallOnly(benchmark::State& state) {
    const std::string directory = MixedFiles() + "/";
    for (auto _ : state) {
        char path[PATH_MAX];
        directory.copy(path, directory.size());
        DIR* entries = opendir(directory.c_str());
        int count = 0;
        while (const dirent* entry = readdir(entries)) {
            if (entry->d_name[0] != '.') {
                std::strcpy(path + directory.size(), entry->d_name);
                count += HasMagic(path) ? 1 : 0;
            }
        }
        closedir(entries);
        Require(count == Files / 100, "loop");
    }
}

BENCHMARK(Scan)->Name("PluginScan/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(CallOnly)->Name("PluginScan/bare")->Unit(benchmark::kMillisecond);

void List(benchmark::State& state) {
    CRP::QxCRPHandler handler(MakeFiles("plugins", Plugins, 1), "/mnt/none.json");
    handler.scanPluginsDir();
    for (auto _ : state) {
        const QxNJson::json list = handler.listPlugins();
        Require(list["plugins"].size() == Plugins, "list");
    }
}

void StatOnly(benchmark::State& state) {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(MakeFiles("plugins", Plugins, 1))) {
        paths.push_back(entry.path());
    }
    for (auto _ : state) {
        for (const std::string& path : paths) {
            struct stat status {};
            Require(stat(path.c_str(), &status) == 0, "stat");
            benchmark::DoNotOptimize(status);
        }
    }
}

BENCHMARK(List)->Name("PluginList/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(StatOnly)->Name("PluginList/bare")->Unit(benchmark::kMillisecond);

}  // namespace
