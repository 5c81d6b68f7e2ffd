#include "api/Checks.h"

#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "api/Cores.h"
#include "api/Interface.h"
#include "api/Program.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>

namespace fs = std::filesystem;
namespace paths = QxNContainer::QxNContainerPaths;
using QxNContainer::QxCContainer;
using QxNJson::json;

namespace {

constexpr auto Ok = "ok";
constexpr auto Warning = "warning";
constexpr auto Error = "error";
constexpr auto Unknown = "unknown";

constexpr std::uint64_t LittleSpace = 512ULL << 20;
constexpr std::uint64_t NoSpace = 32ULL << 20;
constexpr int SoonDays = 30;
constexpr std::chrono::seconds ProgramDeadline{5};
constexpr std::chrono::seconds PluginsDeadline{1};  ///< for the control thread
constexpr const char* UserStorage = "/userstorage1";
constexpr const char* NoUserStorage = "there is no user storage at /userstorage1";
constexpr long SquashfsMagic = 0x73717368;

struct Check {
    std::string id;
    std::string title;
    std::string verdict;
    std::string found;
    std::string remedy = {};
};

Check CheckEnabled(const QxCContainer& service) {
    return service.IsContainerServiceEnabled(false)
               ? Check{"enabled", "Service enabled", Ok, "yes"}
               : Check{"enabled", "Service enabled", Error, "no", "Enable the service, then start it."};
}

Check CheckUserStorage(const QxCContainer& service) {
    std::string reason;
    return service.HasValidUserStorage(&reason)
               ? Check{"user-storage", "User storage", Ok, std::string("ext4 at ") + UserStorage}
               : Check{"user-storage", "User storage", Error, reason,
                       std::string("Mount an ext4 file system at ") + UserStorage +
                           ", then enable and start the service."};
}

Check CheckFirmware() {
    std::ifstream image(paths::CONTAINER_TOOLS, std::ios::binary);
    char magic[4] = {};
    image.read(magic, sizeof(magic));
    std::error_code ignored;
    if (!fs::exists(paths::CONTAINER_TOOLS, ignored)) {
        return {"firmware", "Firmware image", Error, paths::CONTAINER_TOOLS + " is missing",
                "Install the board's system update that brings it."};
    }
    if (std::string(magic, sizeof(magic)) != "hsqs") {
        return {"firmware", "Firmware image", Error, paths::CONTAINER_TOOLS + " is no squashfs image",
                "Install the board's system update again."};
    }
    return {"firmware", "Firmware image", Ok,
            std::to_string(fs::file_size(paths::CONTAINER_TOOLS, ignored) >> 20) + " MiB"};
}

Check CheckMount() {
    struct statfs status {};
    const bool isMounted = statfs(paths::CONTAINER_TOOLS_MOUNTPOINT.c_str(), &status) == 0 &&
                           static_cast<long>(status.f_type) == SquashfsMagic;
    return isMounted
               ? Check{"mount", "Firmware mounted", Ok, paths::CONTAINER_TOOLS_MOUNTPOINT}
               : Check{"mount", "Firmware mounted", Error,
                       "no squashfs at " + paths::CONTAINER_TOOLS_MOUNTPOINT,
                       "Start the service. If an empty directory stands there already, remove it first: it "
                       "counts as mounted."};
}

Check CheckLinks() {
    const std::pair<const char*, const std::string*> links[] = {
        {"/bin/podman", &paths::PODMAN},
        {"/bin/crun", &paths::CRUN},
        {"/usr/bin/conmon", &paths::CONMON},
        {"/bin/docker-compose", &paths::DOCKER_COMPOSE}};
    std::string found;
    bool isTaken = false;
    for (const auto& [link, target] : links) {
        std::error_code error;
        const fs::path place = fs::read_symlink(link, error);
        if (error || place != *target) {
            isTaken = isTaken || fs::exists(fs::symlink_status(link));
            found += (found.empty() ? "" : "; ") + std::string(link) +
                     (!fs::exists(fs::symlink_status(link)) ? " is missing"
                      : error                               ? " is no link"
                                                            : " leads to " + place.string());
        }
    }
    return found.empty()
               ? Check{"links", "Links to the tools", Ok, "podman, crun, conmon, docker-compose"}
               : Check{"links", "Links to the tools", Warning, found,
                       isTaken
                           ? "Remove what stands there and restart the daemon; the service never replaces "
                             "what exists."
                           : "Restart the daemon: the service makes missing links when it is initialised."};
}

Check CheckCoreSettings(unsigned configured, unsigned most) {
    const std::string found = std::to_string(configured) + " configured, at most " + std::to_string(most);
    return configured <= most ? Check{"core-settings", "Core settings", Ok, found}
                              : Check{"core-settings", "Core settings", Error, found,
                                      "Set at most " + std::to_string(most) + " cores."};
}

Check CheckCpuSet(unsigned configured) {
    const ContainerCpuSet set = ReadContainerCpuSet();
    const auto count = static_cast<unsigned>(set.cores.size());
    if (!set.exists) {
        return {"cpu-set", "CPU set in effect", Error, "there is no CPU set libpod_parent",
                "Start the service."};
    }
    if (count != configured) {
        return {"cpu-set", "CPU set in effect", Warning,
                "cores " + (set.effective.empty() ? "none" : set.effective) + ", configured are " +
                    std::to_string(configured),
                "Stop and start the service, so that the settings come into effect."};
    }
    if (!set.strangers.empty()) {
        return {"cpu-set", "CPU set in effect", Warning,
                "cores " + set.effective +
                    "; processes that do not belong there: " + std::to_string(set.strangers.size()),
                "See the cores view for which they are, and move them elsewhere."};
    }
    return {"cpu-set", "CPU set in effect", Ok, "cores " + set.effective};
}

Check CheckPodman(const std::string& problem, const std::string& version) {
    return problem.empty() ? Check{"podman", "Podman answers", Ok, "Podman " + version}
                           : Check{"podman", "Podman answers", Error, problem,
                                   "Start the service; if it does not come up, look at the messages."};
}

Check CheckTcp(bool isRunning, unsigned started, unsigned tcpPort) {
    if (isRunning && started != tcpPort) {
        return {"tcp", "TCP service of Podman", Warning,
                "Podman was started with " +
                    (started == 0 ? "no TCP port" : "port " + std::to_string(started)) +
                    ", the settings say " + (tcpPort == 0 ? "none" : std::to_string(tcpPort)),
                "Stop and start the service, so that the settings come into effect."};
    }
    if (tcpPort == 0) {
        return {"tcp", "TCP service of Podman", Ok, "not wanted: no TCP port is set"};
    }
    const std::string port = "port " + std::to_string(tcpPort);
    return isRunning ? Check{"tcp", "TCP service of Podman", Ok, port}
                     : Check{"tcp", "TCP service of Podman", Error, "nobody listens on " + port,
                             "Look at the messages and at the check of the certificates, then "
                             "stop and start the service."};
}

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

/// @return what is read of a PEM file by one of OpenSSL's functions; null when it is not that
template <typename Owner, typename Read, typename Free>
Owner FromPem(const std::string& path, Read read, Free free) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "re"), fclose);
    return Owner(file ? read(file.get(), nullptr, nullptr, nullptr) : nullptr, free);
}

/// @return whether the server's key is a key, and that of its certificate
bool IsKeyRight(const std::string& keyFile, const std::string& certificateFile) {
    const auto key = FromPem<Key>(keyFile, PEM_read_PrivateKey, EVP_PKEY_free);
    const auto certificate = FromPem<Certificate>(certificateFile, PEM_read_X509, X509_free);
    return key && certificate && X509_check_private_key(certificate.get(), key.get()) == 1;
}

/// @return days until the certificate ends; nothing when it cannot be read
std::optional<int> DaysLeft(const std::string& path) {
    const auto certificate = FromPem<Certificate>(path, PEM_read_X509, X509_free);
    int days = 0;
    int seconds = 0;
    if (!certificate ||
        ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) != 1) {
        return std::nullopt;
    }
    return seconds < 0 ? -1 : days;
}

std::string ValidityText(const std::optional<int>& days) {
    return !days       ? " is no certificate"
           : *days < 0 ? " has ended"
                       : " ends in " + std::to_string(*days) + " days";
}

const char* VerdictOf(int days) { return days < 0 ? Error : days < SoonDays ? Warning : Ok; }

Check CheckOwnCertificate(const std::string& path, const std::string& key) {
    const std::string title = "Certificate of this interface";
    if (path.empty()) {
        return {"own-certificate", title, Ok, "not needed: TLS is not spoken"};
    }
    const auto days = DaysLeft(path);
    const bool fits = IsKeyRight(key, path);
    const char* const verdict = fits ? VerdictOf(days.value_or(-1)) : Error;
    return {"own-certificate", title, verdict,
            path + ValidityText(days) + (fits ? "" : ", " + key + " is not its key: the pair before is used"),
            verdict == Ok ? "" : "Replace both files; the daemon takes new ones that fit by itself."};
}

Check CheckCertificates(unsigned tcpPort) {
    const std::string title = "Certificates of the TCP service";
    if (tcpPort == 0) {
        return {"certificates", title, Ok, "not needed: no TCP port is set"};
    }
    const std::string remedy = "Put ca.crt, server.crt and server.key into " + paths::CONTAINER_CERTS_DIR +
                               ", then stop and start the service.";
    std::string missing;
    std::error_code ignored;
    for (const char* const name : {"ca.crt", "server.crt", "server.key"}) {
        if (!fs::exists(paths::CONTAINER_CERTS_DIR + "/" + name, ignored)) {
            missing += (missing.empty() ? "" : ", ") + std::string(name);
        }
    }
    if (!missing.empty()) {
        return {"certificates", title, Warning,
                "missing: " + missing + "; Podman listens on port " + std::to_string(tcpPort) +
                    " without TLS, for everybody",
                remedy};
    }
    std::string found;
    int least = SoonDays;
    for (const char* const name : {"ca.crt", "server.crt"}) {
        const auto days = DaysLeft(paths::CONTAINER_CERTS_DIR + "/" + name);
        found += (found.empty() ? "" : ", ") + std::string(name) + ValidityText(days);
        least = std::min(least, days.value_or(-1));
    }
    if (!IsKeyRight(paths::CONTAINER_CERTS_DIR + "/server.key", paths::CONTAINER_CERTS_DIR + "/server.crt")) {
        found += ", server.key is not the key of server.crt";
        least = -1;
    }
    return {"certificates", title, VerdictOf(least), found, least < SoonDays ? remedy : ""};
}

Check CheckSpace(const QxCContainer& service) {
    struct statvfs disk {};
    if (!service.HasValidUserStorage(nullptr) || statvfs(UserStorage, &disk) != 0) {
        return {"space", "Free space", Unknown, NoUserStorage};
    }
    const std::uint64_t bytes = std::uint64_t{disk.f_bavail} * disk.f_frsize;
    const std::string found = std::to_string(bytes >> 20) + " MiB at " + UserStorage;
    const char* const verdict = bytes < NoSpace ? Error : bytes < LittleSpace ? Warning : Ok;
    return {"space", "Free space", verdict, found,
            verdict == Ok ? "" : "Remove images and files that are not needed."};
}

std::string AskVersion(const std::string& program) {
    const ProgramOutcome outcome = RunProgram(program, {program, "--version"}, "", ProgramDeadline);
    std::istringstream words(outcome.output);
    for (std::string word; outcome.exitCode == 0 && words >> word;) {
        const size_t digits = word.find_first_of("0123456789");
        if (digits <= 1 && word.find('.') != std::string::npos) {
            return word.substr(digits, word.find_last_not_of(',') - digits + 1);
        }
    }
    return {};
}

/// A program is asked once for as long as it stays the same file: the page looks at the checks all the time.
std::string VersionOf(const std::string& program) {
    struct Known {
        std::tuple<dev_t, ino_t, off_t, time_t> file;
        std::string version;
    };
    static std::mutex mutex;
    static std::map<std::string, Known> versions;
    struct stat status {};
    if (stat(program.c_str(), &status) != 0) {
        return {};
    }
    const std::tuple file(status.st_dev, status.st_ino, status.st_size, status.st_mtime);
    {
        const std::lock_guard lock(mutex);
        const auto known = versions.find(program);
        if (known != versions.end() && known->second.file == file) {
            return known->second.version;
        }
    }
    std::string version = AskVersion(program);
    if (!version.empty()) {
        const std::lock_guard lock(mutex);
        versions[program] = {file, version};
    }
    return version;
}

Check CheckVersions() {
    const std::array programs{&paths::PODMAN, &paths::CRUN, &paths::CONMON, &paths::DOCKER_COMPOSE};
    // Side by side: one that hangs takes all of its time.
    std::vector<std::future<std::string>> versions;
    versions.reserve(programs.size());
    for (const std::string* const program : programs) {
        versions.push_back(std::async(std::launch::async, VersionOf, *program));
    }
    std::string found;
    bool isComplete = true;
    for (size_t i = 0; i < programs.size(); ++i) {
        const std::string* const program = programs[i];
        const std::string version = versions[i].get();
        isComplete = isComplete && !version.empty();
        found += (found.empty() ? "" : ", ") + fs::path(*program).filename().string() + " " +
                 (version.empty() ? "does not run" : version);
    }
    return {"versions", "Versions of the tools", isComplete ? Ok : Error, found,
            isComplete ? "" : "Check the firmware image and its mount."};
}

/// @return why a plugin is not loaded; empty when it is, or when that was the user's wish
std::string WhySkipped(const json& plugin, const json& all) {
    const auto flag = [&](const char* name) { return plugin[name].is_boolean() && plugin[name].get<bool>(); };
    if (flag("isLoaded") || flag("isDeactivated")) {
        return {};
    }
    if (plugin["pluginType"] != 1) {
        return "its type is not supported";
    }
    if (!flag("osCompatible")) {
        return "it is not for this system release";
    }
    const bool isSuperseded = std::any_of(all.begin(), all.end(), [&](const auto& other) {
        return other["name"] == plugin["name"] && other["path"] != plugin["path"] &&
               other["isLoaded"] == json(true);
    });
    return isSuperseded ? "another file of the same plugin is loaded"
                        : "it came after the start, its image could not be mounted, or "
                          "another file of the same plugin goes before it";
}

Check CheckPlugins(const json& list) {
    std::string skipped;
    for (const auto& plugin : list["plugins"]) {
        const std::string why = WhySkipped(plugin, list["plugins"]);
        if (!why.empty()) {
            skipped += (skipped.empty() ? "" : "; ") + plugin["fileName"].get<std::string>() + ": " + why;
        }
    }
    return skipped.empty()
               ? Check{"plugins", "Plugins", Ok, std::to_string(list["plugins"].size()) + " found"}
               : Check{"plugins", "Plugins", Warning, skipped,
                       "See the plugins view; the log file has the details of the last start."};
}

Check CheckWriteCache(const QxCContainer& service) {
    struct stat status {};
    std::error_code error;
    if (!service.HasValidUserStorage(nullptr) || stat(UserStorage, &status) != 0) {
        return {"write-cache", "Disk cache", Unknown, NoUserStorage};
    }
    const fs::path device = fs::canonical(
        "/sys/dev/block/" + std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev)),
        error);
    for (const fs::path& disk : {device, device.parent_path()}) {
        std::ifstream file(disk / "queue/write_cache");
        std::string mode;
        if (std::getline(file, mode)) {
            return mode == "write back"
                       ? Check{"write-cache", "Disk cache", Ok, mode}
                       : Check{"write-cache", "Disk cache", Warning, mode,
                               "Normal while an image is loaded; otherwise stop and start the service."};
        }
    }
    return {"write-cache", "Disk cache", Unknown, "the disk does not tell its cache mode"};
}

json ToJson(const std::vector<Check>& checks) {
    json list = json::array();
    std::string worst = Ok;
    for (const Check& check : checks) {
        json object = json::object();
        object["id"] = check.id;
        object["title"] = check.title;
        object["verdict"] = check.verdict;
        object["found"] = check.found;
        object["remedy"] = check.remedy;
        list.push_back(std::move(object));
        if (check.verdict == Error || (check.verdict == Warning && worst == Ok)) {
            worst = check.verdict;
        }
    }
    json answer = json::object();
    answer["verdict"] = worst;
    answer["checks"] = std::move(list);
    return answer;
}

}  // namespace

QxNHttp::Task<json> CheckBoard(Ground& ground) {
    ServiceKeeper& keeper = ground.keeper;
    const QxCContainer& service = keeper.Service();
    const auto settings = keeper.Settings();
    const unsigned most = service.GetMaxAllowedCpuCoreCount();
    const std::string podmanProblem = co_await keeper.AskNow();
    const Check podman = CheckPodman(podmanProblem, keeper.Version());
    const bool isRunning = podmanProblem.empty() && keeper.HasTcpService();
    const Check tcp = CheckTcp(isRunning, keeper.TcpPort(), settings.tcpPort);
    Check plugins{"plugins", "Plugins", Unknown, {}};
    try {
        auto listing = [&keeper] { return keeper.Service().listPlugins(); };
        const json list = co_await keeper.OnControlThreadWithin(PluginsDeadline, listing);
        plugins = CheckPlugins(list);
    } catch (const QxNHttp::Problem& problem) {
        plugins.found = problem.what();
    }
    co_return co_await OnWorker(ground, [&] {
        return ToJson({CheckEnabled(service), CheckUserStorage(service), CheckFirmware(), CheckMount(),
                       CheckLinks(), CheckCoreSettings(settings.coresNum, most),
                       CheckCpuSet(settings.coresNum), podman, tcp, CheckCertificates(settings.tcpPort),
                       CheckOwnCertificate(ground.certificate, ground.certificateKey), CheckSpace(service),
                       CheckVersions(), plugins, CheckWriteCache(service)});
    });
}
