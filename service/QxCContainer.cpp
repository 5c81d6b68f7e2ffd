#include "QxCContainer.h"

#include "QxCScannerBoardHw.h"
#include "QxCWriteThroughCacheGuard.h"
#include "QxNContainerPaths.h"
#include "service/PodmanProgram.h"
#include "support/ChildProcess.h"
#include "support/ErrorListScope.h"
#include "support/Log.h"

#include <csignal>

namespace QxNContainer {

namespace {

/// A Podman service that is claimed and told to end. The end of the scope collects it, since the monitor
/// thread did not see it ending, also when an exception leaves the scope; ids that are none are passed over.
class EndingService {
public:
    EndingService(std::atomic<std::int32_t>& id, const char* label) : _pid(id.exchange(-1)) {
        if (_pid > 0) {
            QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: Shutting down %s Podman service...",
                            label);
            kill(_pid, SIGTERM);
        }
    }
    EndingService(const EndingService&) = delete;
    EndingService& operator=(const EndingService&) = delete;
    ~EndingService() {
        if (_pid > 0) {
            QxNSupport::ReapWithin(_pid, ReapTimeoutMs);
        }
    }

private:
    const pid_t _pid;
};

/// Joins a thread at the end of the scope.
class ThreadJoin {
public:
    explicit ThreadJoin(QxNRtosAbstraction::QxTThreadHandle& thread) : _thread(thread) {}
    ThreadJoin(const ThreadJoin&) = delete;
    ThreadJoin& operator=(const ThreadJoin&) = delete;
    ~ThreadJoin() {
        QxNRtosAbstraction::joinThread(_thread, nullptr, -1);
        _thread = 0;
    }

private:
    QxNRtosAbstraction::QxTThreadHandle& _thread;
};

}  // namespace

QxCContainer& QxCContainer::GetInstance() {
    static QxCContainer instance;
    return instance;
}

QxCContainer::QxCContainer()
    : _settings(QxCCTESettings::GetInstance()),
      _composeHandler(QxNContainerPaths::COMPOSE_FILES_PATH),
      _pluginHandler(QxNContainerPaths::PLUGINS_DIR, QxNContainerPaths::PLUGIN_CONFIG_FILE),
      _sessionMutex(nullptr) {}

QxCContainer::~QxCContainer() = default;

bool QxCContainer::init() {
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: Container runtime initializing...");
    if (!IsContainerSystem()) {
        return false;
    }
    if (!MountFwFile()) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Utils: Failed to mount firmware file");
        return false;
    }
    SymlinkContainerTools();
    ConfigureDockerHost();
    _pluginHandler.loadPlugins();
    if (!AssignCpuCores()) {
        QxCRTE_LOG_Impl(RteLogLevel::Error,
                        "Quolex Container Utils: Failed to assign CPU cores for container runtime");
        return false;
    }
    _settings->setState(ContainerServiceState::Initialized);
    QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Utils: Initialization finished successfully.");
    return true;
}

bool QxCContainer::Start() {
    _stopRequested = false;
    QxCErrorListPool* errors = QxNSupport::ErrorManager().getMasterErrorList();
    if (!QxNRtosAbstraction::createThread(errors, &_monitorThread, 1, 5, "PodmanServiceMonitor",
                                          ThreadHandler, this, 0)) {
        QxCRTE_LOG_Impl(RteLogLevel::Error, "Quolex Container Utils: Failed to create Podman monitor thread");
        _settings->setState(ContainerServiceState::Failed);
        return false;
    }
    _settings->setState(ContainerServiceState::Running);
    return true;
}

bool QxCContainer::Stop() {
    _stopRequested = true;
    QxCScannerBoardHw::setContainerRteCoresCount(0);

    {
        const EndingService unixService(s_UnixPodmanPid, "Unix");
        const EndingService tcpService(s_TcpPodmanPid, "TCP");
        if (_monitorThread != 0) {
            const ThreadJoin join(_monitorThread);
            StopAllContainers();
        }
    }
    _settings->setState(ContainerServiceState::Stopped);
    QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
    return true;
}

bool QxCContainer::IsContainerSystem() {
    if (!_settings->getEnabled(true)) {
        return false;
    }
    if (HasValidUserStorage(nullptr)) {
        return true;
    }
    _settings->setEnabled(false);
    return false;
}

bool QxCContainer::EnableContainerService() {
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Utils: Enabling container service.");
    return _settings->setEnabled(true);
}

bool QxCContainer::DisableContainerService() {
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Utils: Disabling container service.");
    return _settings->setEnabled(false);
}

bool QxCContainer::IsContainerServiceEnabled(bool reread) const { return _settings->getEnabled(reread); }

int QxCContainer::GetContainerServiceStatus(bool reread) const { return _settings->getState(reread); }

QxCCTESettings::QxSUserSettings QxCContainer::GetContainerServiceUserSettings() const {
    return _settings->getServiceUserSettings(false);
}

bool QxCContainer::SetContainerServiceUserSettings(const QxCCTESettings::QxSUserSettings& settings) {
    return _settings->setServiceUserSettings(settings);
}

unsigned int QxCContainer::GetMaxAllowedCpuCoreCount() const { return _settings->getMaxCpuCoreCount(); }

}  // namespace QxNContainer
