#include "QxCContainer.h"
#include "QxCWriteThroughCacheGuard.h"
#include "QxNContainerPaths.h"
#include "podman/PodmanApi.h"
#include "support/Log.h"

namespace QxNContainer {

std::string QxCContainer::ConfigureCurlForPodman(QxCCurlHandler& curl) {
    curl.SetUnixSocket(QxNContainerPaths::PODMAN_SOCKET);
    return PodmanBaseUrl;
}

PodmanResponse QxCContainer::ExecutePodmanRequest(const std::string& endpoint,
                                                  QxCCurlHandler::MethodType method,
                                                  const std::vector<std::string>& headers,
                                                  const std::string& uploadFilePath, bool writeThrough) {
    // Declared first: the disk goes back to write-back mode after the connection is closed.
    const auto guard = QxCWriteThroughCacheGuard::Create(writeThrough);
    QxCCurlHandler curl;
    const std::string url = ConfigureCurlForPodman(curl) + PodmanApiPrefix + endpoint;
    curl.SetMethodType(method);
    curl.SetUrl(url);
    curl.SetHeaders(headers);
    if (!uploadFilePath.empty()) {
        curl.UploadFile(uploadFilePath);
    }
    PodmanResponse response;
    response.body = curl.Execute();
    response.httpCode = curl.GetHttpCode();
    return response;
}

bool QxCContainer::IsContainerTty(const std::string& containerId) {
    const PodmanResponse response = ExecutePodmanRequest(
        "/containers/" + containerId + "/json", QxCCurlHandler::Get, {"Accept: application/json"}, {}, false);
    if (response.httpCode < 200 || response.httpCode > 299) {
        QxCRTE_LOG_Impl(
            RteLogLevel::Error,
            "Quolex Container Service: Podman GET /containers/%s/json failed with HTTP %d, assuming no TTY",
            containerId.c_str(), response.httpCode);
        return false;
    }
    const QxNJson::json container = QxNJson::json::parse(response.body);
    if (container.is_invalid() || !container.contains("Config")) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Service: Failed to parse inspect result for container '%s'",
                        containerId.c_str());
        return false;
    }
    const QxNJson::json config = container["Config"];
    return config.contains("Tty") && config["Tty"].is_boolean() && config["Tty"].get<bool>();
}

}  // namespace QxNContainer
