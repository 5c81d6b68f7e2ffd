#include "api/Interface.h"

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Tokens;
using QxNHttp::Verb;
using QxNJson::json;

namespace {

constexpr const char* CookieRules = "; Path=/; HttpOnly; SameSite=Strict";

std::string SessionCookie(const QxNHttp::Client& client, const std::string& value) {
    return "qx-session=" + value + CookieRules + (client.isTls ? "; Secure" : "");
}

Reply SessionReply(const QxNHttp::Client& client) {
    return JsonReply(json{{"name", client.name}, {"right", QxNHttp::TextOf(client.right)}});
}

/// Whoever holds a token must not be able to make himself another one.
void CheckLocal(const Request& request) {
    if (!request.client.isLocal) {
        throw Problem(Status::forbidden, "Tokens are made and listed on the board only, with qxctl token.");
    }
}

Task<Reply> OpenSession(Ground& ground, Request& request) {
    const json wanted = co_await ReadObject(request);
    const std::string token = TextMember(wanted, "token");
    const QxNHttp::Client client = request.client.isLocal ? request.client : ground.tokens.Find(token);
    if (client.right == Right::None) {
        throw Problem(Status::unauthorized,
                      "There is no such token; qxctl token create makes one on the board.");
    }
    Reply reply = SessionReply(client);
    if (!client.isLocal) {
        reply.headers.emplace_back("Set-Cookie", SessionCookie(request.client, token));
    }
    co_return reply;
}

Task<Reply> MakeToken(Ground& ground, Request& request) {
    CheckLocal(request);
    const json wanted = co_await ReadObject(request);
    const std::string name = TextMember(wanted, "name");
    const Right right = QxNHttp::RightOf(TextMember(wanted, "right"));
    if (!QxNHttp::IsFileName(name) || name.size() > 64 || right == Right::None) {
        throw Problem(
            Status::bad_request,
            "A token needs a name of 1 to 64 letters, digits, dots, hyphens and underscores, and a right, "
            "which is look or act.");
    }
    const std::string token = co_await OnWorker(ground, [&] { return ground.tokens.Make(name, right); });
    co_return JsonReply(json{{"token", token}}, Status::created);
}

}  // namespace

void AddAccessRequests(QxNHttp::Router& router, Ground& ground) {
    router.Add(Verb::post, "/session", Right::None, [&ground](Request& request) -> Task<Reply> {
        co_return co_await OpenSession(ground, request);
    });
    router.Add(Verb::get, "/session", Right::Look,
               [](Request& request) -> Task<Reply> { co_return SessionReply(request.client); });
    router.Add(Verb::delete_, "/session", Right::None, [](Request& request) -> Task<Reply> {
        Reply reply = Reply::Empty();
        reply.headers.emplace_back("Set-Cookie", SessionCookie(request.client, "; Max-Age=0"));
        co_return reply;
    });
    router.Add(Verb::get, "/tokens", Right::Act, [&ground](Request& request) -> Task<Reply> {
        CheckLocal(request);
        json list = json::array();
        for (const Tokens::Entry& entry : ground.tokens.List()) {
            list.push_back(json{
                {"name", entry.name}, {"right", QxNHttp::TextOf(entry.right)}, {"created", entry.created}});
        }
        json answer = json::object();
        answer["tokens"] = std::move(list);
        co_return JsonReply(answer);
    });
    router.Add(Verb::post, "/tokens", Right::Act,
               [&ground](Request& request) -> Task<Reply> { co_return co_await MakeToken(ground, request); });
    router.Add(Verb::delete_, "/tokens/{name}", Right::Act, [&ground](Request& request) -> Task<Reply> {
        CheckLocal(request);
        const bool isRemoved =
            co_await OnWorker(ground, [&] { return ground.tokens.Remove(request.segments[3]); });
        if (!isRemoved) {
            throw Problem(Status::not_found, "There is no token named '" + request.segments[3] + "'.");
        }
        co_return Reply::Empty();
    });
}
