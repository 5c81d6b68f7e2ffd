#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "api/Interface.h"
#include "api/Names.h"
#include "api/Program.h"
#include "http/Clock.h"
#include "http/UploadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

namespace fs = std::filesystem;
using QxNContainer::QxCContainer;
using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

constexpr size_t LongestFile = 1 << 20;
constexpr std::chrono::seconds CheckDeadline{60};
constexpr int NothingChanged = 7;

const std::string& Directory() { return QxNContainer::QxNContainerPaths::COMPOSE_FILES_PATH; }

const std::string& ComposeFileName(const std::string& name) {
    FileName(name);
    if (!name.ends_with(".yaml") && !name.ends_with(".yml")) {
        throw Problem(Status::bad_request, "The name of a compose file ends in .yaml or .yml.");
    }
    return name;
}

/// @return the name of the project of a compose file
std::string ProjectOf(const std::string& file) { return fs::path(file).stem().string(); }

std::map<std::string, fs::directory_entry> Files() {
    std::map<std::string, fs::directory_entry> files;
    std::error_code error;
    for (fs::directory_iterator entry(Directory(), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code ignored;
        if (QxNHttp::IsFileName(name) && (name.ends_with(".yaml") || name.ends_with(".yml")) &&
            entry->is_regular_file(ignored)) {
            files.emplace(name, *entry);
        }
    }
    return files;
}

json DescribeFile(const std::string& name, const fs::directory_entry& entry) {
    struct stat status {};
    if (stat(entry.path().c_str(), &status) != 0) {
        status = {};
    }
    json file = json::object();
    file["name"] = name;
    file["size"] = std::int64_t{status.st_size};
    file["modified"] = QxNHttp::TimeText(std::chrono::system_clock::from_time_t(status.st_mtime));
    return file;
}

json DescribeFiles() {
    json files = json::array();
    for (const auto& [name, entry] : Files()) {
        files.push_back(DescribeFile(name, entry));
    }
    return files;
}

std::string ReadFile(const std::string& name) {
    const QxNSupport::UniqueFd file(open((Directory() + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Problem(Status::not_found, "There is no compose file '" + name + "'.");
    }
    if (static_cast<size_t>(status.st_size) > LongestFile) {
        throw Problem(Status::unprocessable_entity, "The file is longer than 1 MiB.");
    }
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t count = read(file.Get(), text.data(), text.size());
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

const char* StateOf(const json& containers) {
    size_t running = 0;
    size_t created = 0;
    for (const auto& container : containers) {
        running += container["state"] == "running" ? 1U : 0U;
        created += container["state"] == "created" ? 1U : 0U;
    }
    return containers.empty()             ? "none"
           : running == containers.size() ? "running"
           : running > 0                  ? "partly"
           : created == containers.size() ? "created"
                                          : "stopped";
}

json DescribeProject(const std::string& file, const std::optional<json>& containers) {
    const std::string name = ProjectOf(file);
    json own = json::array();
    if (containers) {
        for (const auto& container : *containers) {
            if (container["project"] == name) {
                own.push_back(json{{"name", container["name"]}, {"state", container["state"]}});
            }
        }
    }
    json project = json::object();
    project["file"] = file;
    project["name"] = name;
    project["state"] = containers ? StateOf(own) : "unknown";
    project["containers"] = std::move(own);
    return project;
}

Task<Reply> ListProjects(Ground& ground) {
    std::optional<json> containers;
    try {
        containers = co_await ListContainers(ground);
    } catch (const Problem&) {
        // Without Podman the files are there all the same.
    }
    std::map<std::string, fs::directory_entry> files;
    co_await OnWorker(ground, [&] { files = Files(); });
    json projects = json::array();
    for (const auto& [file, entry] : files) {
        projects.push_back(DescribeProject(file, containers));
    }
    json answer = json::object();
    answer["projects"] = std::move(projects);
    co_return JsonReply(answer);
}

/// One operation on a project at a time: compose does not serialise them.
class BusyProject {
public:
    BusyProject(Ground& ground, const std::string& file) : _ground(ground), _project(ProjectOf(file)) {
        if (!_ground.busyProjects.insert(_project).second) {
            throw Problem(Status::conflict, "Another operation on '" + _project + "' is still running.");
        }
    }
    BusyProject(const BusyProject&) = delete;
    BusyProject& operator=(const BusyProject&) = delete;
    ~BusyProject() { _ground.busyProjects.erase(_project); }

private:
    Ground& _ground;
    const std::string _project;
};

using Operation = int (QxCContainer::*)(const char*, json&);

Task<Reply> Operate(Ground& ground, const std::string& file, const std::string& name) {
    static const std::map<std::string, Operation> Operations{{"create", &QxCContainer::CreateCompose},
                                                             {"start", &QxCContainer::StartCompose},
                                                             {"stop", &QxCContainer::StopCompose},
                                                             {"remove", &QxCContainer::RemoveCompose}};
    ComposeFileName(file);
    const auto found = Operations.find(name);
    if (found == Operations.end()) {
        throw Problem(Status::not_found, "A project can be created, started, stopped and removed.");
    }
    RequirePodman(ground.keeper);
    const BusyProject busy(ground, file);
    const Operation operation = found->second;
    json result;
    int code = 0;
    std::string failure;
    try {
        code = co_await QxNHttp::InBackground(
            ground.compose, [&] { return (ground.keeper.Service().*operation)(file.c_str(), result); });
    } catch (const nlohmann::json::exception& error) {
        failure = error.what();
    }
    if (!failure.empty()) {
        throw Problem(Status::bad_gateway, "The compose tool's answer cannot be understood: " + failure);
    }
    json answer = json::object();
    answer["code"] = code;
    answer["ok"] = code == 0 || code == (name == "create" ? 1 : 0) || code == NothingChanged;
    answer["result"] = result;
    co_return JsonReply(answer);
}

/// What the tool says of a text must not depend on whether it is stored already: it is a project of that file's name in
/// the directory of the files.
Task<Reply> CheckText(Ground& ground, Request& request) {
    const std::string file = request.Parameter("file");
    const std::string project = file.empty() ? "check" : ProjectOf(ComposeFileName(file));
    const std::string text = co_await request.body->Text(LongestFile);
    const auto outcome = co_await QxNHttp::InBackground(ground.compose, [&] {
        return RunProgram(QxNComposeFileHandler::ComposeTool::Path,
                          {QxNComposeFileHandler::ComposeTool::Exe, "--project-directory", Directory(), "-p",
                           project, "-f", "-", "config", "--quiet"},
                          text, CheckDeadline);
    });
    if (!outcome.hasStarted) {
        throw Problem(Status::service_unavailable,
                      "There is no compose tool; the firmware image is not mounted. Start the service.");
    }
    json answer = json::object();
    answer["valid"] = outcome.exitCode == 0;
    answer["output"] = outcome.output;
    co_return JsonReply(answer);
}

Task<Reply> WriteFile(Ground& ground, Request& request) {
    const std::string name = ComposeFileName(request.segments[3]);
    RequireUserStorage(ground.keeper);
    QxNHttp::UploadedFile file = co_await request.body->ToFile(Directory(), LongestFile);
    const bool replaces = co_await QxNHttp::Place(file, Directory() + name);
    co_return Reply::Empty(replaces ? Status::no_content : Status::created);
}

}  // namespace

void AddComposeRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/compose-files", Right::Look, [&ground](Request&) -> Task<Reply> {
        json answer = json::object();
        co_await OnWorker(ground, [&] { answer["files"] = DescribeFiles(); });
        co_return JsonReply(answer);
    });
    router.Add(Verb::post, "/compose-files/check", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await CheckText(ground, request); });
    router.Add(Verb::get, "/compose-files/{file}", Right::Look, [&ground](Request& request) -> Task<Reply> {
        Reply reply;
        reply.type = "application/yaml";
        co_await OnWorker(ground, [&] { reply.body = ReadFile(ComposeFileName(request.segments[3])); });
        co_return reply;
    });
    router.Add(Verb::put, "/compose-files/{file}", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await WriteFile(ground, request); });
    router.Add(Verb::delete_, "/compose-files/{file}", Right::Act, [](Request& request) -> Task<Reply> {
        const std::string& name = ComposeFileName(request.segments[3]);
        const std::string path = Directory() + name;
        const std::string notFound = "There is no compose file '" + name + "'.";
        co_await RemoveFile(path, notFound);
        co_return Reply::Empty();
    });
    router.Add(Verb::get, "/projects", Right::Look,
               [&ground](Request&) -> Task<Reply> { co_return co_await ListProjects(ground); });
    router.Add(Verb::post, "/projects/{file}/{operation}", Right::Act,
               [&ground](Request& request) -> Task<Reply> {
                   co_return co_await Operate(ground, request.segments[3], request.segments[4]);
               });
}
