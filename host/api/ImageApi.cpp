#include "QxCContainer.h"
#include "QxNContainerPaths.h"
#include "api/Interface.h"
#include "api/Names.h"
#include "http/Clock.h"
#include "http/UploadFile.h"

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

/// Reading an image of many gigabytes from a slow disk takes its time.
constexpr std::chrono::hours LoadDeadline{6};

json TextsOf(const json& list) {
    json texts = json::array();
    if (list.is_array()) {
        for (const auto& text : list) {
            if (text.is_string()) {
                texts.push_back(text);
            }
        }
    }
    return texts;
}

json Describe(const json& image) {
    const auto created = std::chrono::system_clock::from_time_t(NumberMember(image, "Created"));
    json object = json::object();
    object["id"] = TextMember(image, "Id");
    object["names"] = TextsOf(Member(image, "RepoTags"));
    object["size"] = NumberMember(image, "Size");
    object["created"] = QxNHttp::TimeText(created);
    object["containers"] = NumberMember(image, "Containers");
    return object;
}

Task<Reply> Load(Ground& ground, Request& request) {
    // Before gigabytes have come in vain.
    RequirePodman(ground.keeper);
    RequireUserStorage(ground.keeper);
    QxNHttp::UploadedFile archive = co_await request.body->ToFile(
        QxNContainer::QxNContainerPaths::IMAGES_STORAGE_DIR, ground.largestUpload);
    PodmanAsk load("/libpod/images/load");
    load.method = QxCCurlHandler::Post;
    load.headers.push_back("Content-Type: application/x-tar");
    load.uploadPath = archive.Path();
    load.writeThrough = true;
    load.deadline = LoadDeadline;
    std::optional<Problem> refused;
    json names = json::array();
    try {
        const json answer = co_await AskPodmanForJson(ground, load);
        names = TextsOf(Member(answer, "Names"));
    } catch (const Problem& problem) {
        // Podman answers 500 to what it cannot read.
        const bool isUnreadable =
            problem.status == Status::bad_gateway || problem.status == Status::bad_request;
        if (std::string_view(problem.what()).find("no space left") != std::string_view::npos) {
            refused.emplace(Status::insufficient_storage,
                            "There is no room for the image; remove images or files that are not needed. " +
                                std::string(problem.what()));
        } else {
            refused.emplace(isUnreadable ? Status::unprocessable_entity : problem.status, problem.what());
        }
    }
    co_await QxNHttp::Discard(archive);
    if (refused) {
        throw *refused;
    }
    json answer = json::object();
    answer["names"] = std::move(names);
    co_return JsonReply(answer);
}

}  // namespace

void AddImageRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::get, "/images", Right::Look, [&ground](Request&) -> Task<Reply> {
        const PodmanAsk ask("/libpod/images/json");
        const json answer = co_await AskPodmanForJson(ground, ask);
        json images = json::array();
        if (answer.is_array()) {
            for (const auto& image : answer) {
                images.push_back(Describe(image));
            }
        }
        json list = json::object();
        list["images"] = std::move(images);
        co_return JsonReply(list);
    });
    router.Add(Verb::post, "/images", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await Load(ground, request); });
    router.Add(Verb::delete_, "/images/{image}", Right::Act, [&ground](Request& request) -> Task<Reply> {
        const std::string force = request.Flag("force", false) ? "true" : "false";
        PodmanAsk removal("/libpod/images/" + ImageInUrl(request.segments[3]) + "?force=" + force);
        removal.method = QxCCurlHandler::Delete;
        co_await AskPodman(ground, removal);
        co_return Reply::Empty();
    });
}
