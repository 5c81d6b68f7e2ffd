#include "QxCContainer.h"
#include "api/Interface.h"
#include "api/LogDownload.h"
#include "api/LogSocket.h"
#include "api/Names.h"
#include "logs/ContainerState.h"
#include "support/ErrorListScope.h"

#include <boost/asio/this_coro.hpp>

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::Verb;
using QxNHttp::WebSocket;

namespace {

constexpr std::uint64_t DefaultTail = 100;
constexpr std::uint64_t MostTail = 1000000;
constexpr size_t LargestMessage = 64 << 10;

bool WantsAll(const Request& request) { return request.Parameter("tail") == "all"; }

std::string TailText(const Request& request, const std::string& fallback) {
    if (WantsAll(request)) {
        return "all";
    }
    return request.Parameter("tail").empty() ? fallback
                                             : std::to_string(request.Number("tail", DefaultTail, MostTail));
}

Problem ProblemOf(const LogError& error) {
    switch (error.kind) {
        case LogError::Kind::BadCursor:
            return {Status::bad_request, error.text};
        case LogError::Kind::NotFound:
            return {Status::not_found, error.text};
        case LogError::Kind::NoPodman:
        case LogError::Kind::TooMany:
        case LogError::Kind::Stopping:
            break;
    }
    return {Status::service_unavailable, error.text};
}

Task<void> Follow(std::shared_ptr<LogViewer> viewer, WebSocket& socket) {
    QxNHttp::Event more(co_await boost::asio::this_coro::executor);
    for (;;) {
        while (auto message = viewer->Next(LargestMessage)) {
            co_await socket.Send(std::move(*message));
        }
        if (viewer->HasEnded()) {
            co_await socket.Close("end of the log");
            co_return;
        }
        viewer->NotifyOnce([more] { more.Notify(); });
        co_await more.Wait();
    }
}

Task<QxNHttp::Router::Stream> OpenLog(Ground& ground, Request& request) {
    const std::string container = ContainerName(request.segments[3]);
    LogStart start;
    start.tail = WantsAll(request) ? LogStart::All : request.Number("tail", DefaultTail, MostTail);
    start.after = request.Parameter("after");
    RequirePodman(ground.keeper);
    auto opened =
        co_await QxNHttp::InBackground(ground.podman, [&] { return ground.logs.Open(container, start); });
    if (!opened.viewer) {
        throw ProblemOf(opened.error);
    }
    const std::shared_ptr<LogViewer> viewer = std::move(opened.viewer);
    co_return [viewer](WebSocket& socket) { return Follow(viewer, socket); };
}

Task<Reply> Download(Ground& ground, Request& request) {
    const std::string container = ContainerName(request.segments[3]);
    const std::string tail = TailText(request, "all");
    const bool hasTimestamps = request.Flag("timestamps", false);
    const PodmanAsk inspection(ContainerState::Endpoint(container));
    std::optional<ContainerState> state;
    try {
        const PodmanResponse answer = co_await AskPodman(ground, inspection);
        state = ContainerState::Read(answer.body);
    } catch (const Problem& problem) {
        if (problem.status != Status::not_found) {
            throw;
        }
        throw Problem(Status::not_found, "There is no such container.");
    }
    if (!state) {
        throw Problem(Status::bad_gateway, "Podman's answer about the container cannot be understood.");
    }
    const auto download = std::make_shared<LogDownload>(co_await boost::asio::this_coro::executor,
                                                        state->hasTerminal, hasTimestamps);
    if (!download->Start(ground.streams, ground.keeper.Service(), container, tail)) {
        throw Problem(Status::service_unavailable, "There are too many streams of logs; try again later.");
    }
    const auto first = std::make_shared<std::string>(co_await download->Next());
    Reply reply;
    reply.type = "text/plain; charset=utf-8";
    reply.producer = [download, first](QxNHttp::BodyWriter& writer) -> Task<void> {
        for (std::string piece = std::move(*first); !piece.empty(); piece = co_await download->Next()) {
            co_await writer.Write(std::move(piece));
        }
    };
    co_return reply;
}

// --- As it comes ---

/// Until the log has ended or the client has gone.
void StreamTo(LogSocket& socket, QxNContainer::QxCContainer& service, const std::string& container,
              const std::string& endpoint) {
    PodmanResponse response;
    try {
        QxNSupport::ErrorListScope errors;
        const auto session = service.RegisterLogStreamSession(&socket, container);
        // Not earlier: a close before there is a session would be lost.
        socket.SetCloseHandler(QxNContainer::QxCContainer::LogStreamCloseHandler);
        response =
            service.StreamPodmanRequest(endpoint, QxCCurlHandler::Get, {}, errors.List(), session, &socket);
    } catch (const std::exception&) {
        response.httpCode = 0;
    }
    service.UnregisterLogStreamSession(&socket);
    if (response.httpCode == 200) {
        socket.End(LogSocket::CloseCode::normal, "end of the log");
    } else if (response.httpCode == 404) {
        socket.End(LogSocket::CloseCode::policy_error, "no such container");
    } else {
        socket.End(LogSocket::CloseCode::internal_error, "no answer from Podman");
    }
}

Task<void> ServeRawLog(Ground& ground, std::string container, std::string endpoint, WebSocket& socket) {
    const auto log = std::make_shared<LogSocket>(co_await boost::asio::this_coro::executor);
    auto& service = ground.keeper.Service();
    const auto stream = [log, &service, container, endpoint] {
        StreamTo(*log, service, container, endpoint);
    };
    if (ground.streams.Run(stream)) {
        co_await log->Serve(socket);
    } else {
        co_await socket.Close("too many streams", WebSocket::CloseCode::try_again_later);
    }
}

Task<QxNHttp::Router::Stream> OpenRawLog(Ground& ground, Request& request) {
    const std::string container = ContainerName(request.segments[3]);
    const std::string endpoint = "/containers/" + container +
                                 "/logs?follow=true&stdout=true&stderr=true&timestamps=false&tail=" +
                                 TailText(request, std::to_string(DefaultTail));
    const PodmanAsk inspection("/containers/" + container + "/json");
    co_await AskPodman(ground, inspection);
    co_return [&ground, container, endpoint](WebSocket& socket) {
        return ServeRawLog(ground, container, endpoint, socket);
    };
}

}  // namespace

void AddLogRequests(QxNHttp::Router& router, Ground& ground) {
    router.AddStream("/containers/{container}/logs", Right::Look,
                     [&ground](Request& request) -> Task<QxNHttp::Router::Stream> {
                         co_return co_await OpenLog(ground, request);
                     });
    router.AddStream("/containers/{container}/logs/raw", Right::Look,
                     [&ground](Request& request) -> Task<QxNHttp::Router::Stream> {
                         co_return co_await OpenRawLog(ground, request);
                     });
    router.Add(Verb::get, "/containers/{container}/logs", Right::Look,
               [&ground](Request& request) -> Task<Reply> { co_return co_await Download(ground, request); });
}
