#include "Recording.h"

#include "QxCBoardStatus.h"
#include "QxCCustomConfig.h"
#include "QxCErrorManager.h"
#include "QxCHypervisor.h"
#include "QxCLogfile.h"
#include "QxCMessageManagerClient.h"
#include "QxCScannerBoardHw.h"
#include "QxCWebSocket.h"
#include "QxLinuxBaseUtils.h"
#include "QxNRtosAbstraction.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

std::mutex eventsMutex;
std::vector<std::string> events;
std::vector<std::string> mutexCalls;
std::atomic<int> liveLists{0};
std::atomic<int> singletonRequests{0};

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, copy)) + 1, '\0');
    va_end(copy);
    vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

__attribute__((format(printf, 1, 2))) void RecordF(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string event = Format(format, arguments);
    va_end(arguments);
    Recording::Record(event);
}

void RecordMutexCall(const std::string& call) {
    const std::lock_guard lock(eventsMutex);
    mutexCalls.push_back(call);
}

thread_local QxCErrorListPool* masterErrorList = nullptr;

}  // namespace

namespace Recording {

Script& TheScript() {
    static Script script;
    return script;
}

void Record(const std::string& event) {
    {
        const std::lock_guard lock(eventsMutex);
        events.push_back(event);
    }
    if (TheScript().onEvent) {
        TheScript().onEvent(event);
    }
}

std::vector<std::string> Events(const std::string& prefix) {
    const std::lock_guard lock(eventsMutex);
    std::vector<std::string> selected;
    for (const std::string& event : events) {
        if (event.starts_with(prefix)) {
            selected.push_back(event);
        }
    }
    return selected;
}

std::vector<std::string> Logs() {
    std::vector<std::string> lines;
    for (const std::string& event : Events("log ")) {
        lines.push_back(event.substr(4, event.size() - 5));
    }
    return lines;
}

std::vector<std::string> Messages() {
    std::vector<std::string> messages;
    for (const std::string& event : Events("message ")) {
        messages.push_back(event.substr(event.find('=') + 1, 1) + " " +
                           event.substr(event.find("text=") + 5));
    }
    return messages;
}

std::vector<std::string> MutexCalls() {
    const std::lock_guard lock(eventsMutex);
    return mutexCalls;
}

void Forget() {
    const std::lock_guard lock(eventsMutex);
    events.clear();
    mutexCalls.clear();
}

int LiveLists() { return liveLists; }
int SingletonRequests() { return singletonRequests; }

MasterErrorList::MasterErrorList() {
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    manager->setMasterErrorList(manager->createErrorList(0, 1, 20, 5, 300), -1, false);
}

MasterErrorList::~MasterErrorList() {
    QxCErrorManager* manager = QxCErrorManager::getSingleton();
    QxCErrorListPool* list = manager->getMasterErrorList();
    manager->clearMasterErrorList(-1);
    manager->deleteErrorList(list);
}

}  // namespace Recording

using Recording::TheScript;

// --- Error and message lists ---

struct QxCErrorList::Impl {
    std::vector<QxSMessage> messages;
    unsigned int errors = 0;
};

QxCErrorList::QxCErrorList(int, int) : _impl(std::make_unique<Impl>()) { ++liveLists; }
QxCErrorList::~QxCErrorList() { --liveLists; }

void QxCErrorList::setMessage(int severity, int group, int number, const char* source, const char* format,
                              ...) {
    va_list arguments;
    va_start(arguments, format);
    _impl->messages.push_back({0, severity, number, source, Format(format, arguments)});
    va_end(arguments);
    if (group != 0) {
        RecordF("setMessage with group %d", group);
    }
    _impl->errors += severity == QxNSeverity::Error ? 1 : 0;
}

unsigned int QxCErrorList::getErrorCount() const { return _impl->errors; }
std::vector<QxSMessage> QxCErrorList::getMessages() const { return _impl->messages; }

void QxCErrorList::reset() {
    RecordF("resetList");
    *_impl = {};
}

QxCErrorManager* QxCErrorManager::s_pErrorManager = nullptr;
QxCErrorManager::QxCErrorManager() = default;
QxCErrorManager::~QxCErrorManager() = default;

QxCErrorManager* QxCErrorManager::getSingleton() {
    static QxCErrorManager manager;
    ++singletonRequests;
    return &manager;
}

bool QxCErrorManager::hasMasterErrorList() const { return masterErrorList != nullptr; }
QxCErrorListPool* QxCErrorManager::getMasterErrorList() const { return masterErrorList; }

void QxCErrorManager::setMasterErrorList(QxCErrorListPool* list, int thread, bool replace) {
    RecordF("setMasterErrorList(%d, %d)", thread, replace);
    masterErrorList = list;
}

void QxCErrorManager::clearMasterErrorList(int thread) {
    RecordF("clearMasterErrorList(%d)", thread);
    masterErrorList = nullptr;
}

void QxCErrorManager::sendErrorList(QxCErrorListPool*, int flags) { RecordF("sendErrorList(%d)", flags); }

QxCErrorListPool* QxCErrorManager::createErrorList(int a, int b, int c, int d, int e) {
    RecordF("createErrorList(%d, %d, %d, %d, %d)", a, b, c, d, e);
    return new QxCErrorListPool(c, e);
}

void QxCErrorManager::deleteErrorList(QxCErrorListPool* list) {
    RecordF("deleteErrorList");
    delete list;
}

QxCErrorList* QxCErrorManager::createMessageList(int a, int b, int c, int d, int e) {
    RecordF("createMessageList(%d, %d, %d, %d, %d)", a, b, c, d, e);
    return new QxCErrorList(c, e);
}

void QxCErrorManager::deleteMessageList(QxCErrorList* list) {
    RecordF("deleteMessageList");
    delete list;
}

QxCMessageManagerClient::QxCMessageManagerClient() = default;
QxCMessageManagerClient::~QxCMessageManagerClient() = default;

QxCMessageManagerClient* QxCMessageManagerClient::getInstance() {
    static QxCMessageManagerClient client;
    return &client;
}

void QxCMessageManagerClient::sendMessageList(QxCErrorListPool* errors, const QxCErrorList* messages) {
    if (errors == nullptr) {
        RecordF("sendMessageList without an error list");
    }
    for (const QxSMessage& message : messages->getMessages()) {
        RecordF("message severity=%d number=%d source=%s text=%s", message.severity, message.number,
                message.source.c_str(), message.text.c_str());
    }
}

// --- Log file and configuration ---

QxCLogfile::QxCLogfile() = default;
QxCLogfile::~QxCLogfile() = default;

QxCLogfile* QxCLogfile::getInstance() {
    static QxCLogfile file;
    return &file;
}

void QxCLogfile::logPrintf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);
    Recording::Record("log " + line);
}

QxCCustomConfig::QxCCustomConfig() = default;
QxCCustomConfig::~QxCCustomConfig() = default;

QxCCustomConfig* QxCCustomConfig::getInstance() {
    static QxCCustomConfig config;
    return &config;
}

std::string QxCCustomConfig::getOption(const char* section, const char* option, const char* defaultValue,
                                       bool reread) {
    RecordF("getOption(%s, %s, %s, %d)", section, option, defaultValue, reread);
    return TheScript().logLevelIsSet ? TheScript().logLevel : defaultValue;
}

// --- Threads and processes ---

namespace QxNRtosAbstraction {

namespace {

struct Thread {
    std::thread thread;
};

}  // namespace

bool createThread(QxCErrorListPool* errors, QxTThreadHandle* handle, int priority, int stackSize,
                  const char* name, QxTThreadFunction function, void* argument, int flags) {
    RecordF("createThread(%s, %d, %d, %d)%s", name, priority, stackSize, flags,
            errors != nullptr && errors == masterErrorList ? " into the master error list" : "");
    if (TheScript().createThreadFails) {
        return false;
    }
    try {
        *handle = reinterpret_cast<QxTThreadHandle>(new Thread{std::thread(function, argument)});
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

bool joinThread(QxTThreadHandle handle, void**, int timeoutMs) {
    RecordF("joinThread(%d)", timeoutMs);
    auto* thread = reinterpret_cast<Thread*>(handle);
    thread->thread.join();
    delete thread;
    return true;
}

struct QxCMutex::Impl {
    std::timed_mutex mutex;
};

QxCMutex::QxCMutex(const char* name) : _impl(std::make_unique<Impl>()) {
    RecordF("QxCMutex(%s)", name != nullptr ? name : "null");
}
QxCMutex::~QxCMutex() = default;

bool QxCMutex::lock(int timeoutMs) {
    RecordMutexCall("lock(" + std::to_string(timeoutMs) + ")");
    if (timeoutMs < 0) {
        _impl->mutex.lock();
        return true;
    }
    return _impl->mutex.try_lock_for(std::chrono::milliseconds(timeoutMs));
}

void QxCMutex::unlock() {
    RecordMutexCall("unlock");
    _impl->mutex.unlock();
}

unsigned int getProcessID(const char* name) {
    RecordF("getProcessID(%s)", name);
    const auto process = TheScript().processes.find(name);
    return process != TheScript().processes.end() ? process->second : NoProcess;
}

bool signalProcess(unsigned int pid, int signal, int value) {
    RecordF("signalProcess(%u, %d, %d)", pid, signal, value);
    return !TheScript().signalProcessFails && pid != NoProcess;
}

}  // namespace QxNRtosAbstraction

// --- Hardware ---

namespace QxNHypervisor {

QxCHypervisor::QxCHypervisor() = default;
QxCHypervisor::~QxCHypervisor() = default;

QxCHypervisor* QxCHypervisor::getInstance() {
    static QxCHypervisor hypervisor;
    return &hypervisor;
}

unsigned int QxCHypervisor::getTotalCoreCount() const { return TheScript().hypervisorCores; }

}  // namespace QxNHypervisor

void QxCScannerBoardHw::getCnCoreCount(QxCErrorListPool& errors, unsigned int& total, unsigned int& usable,
                                       unsigned int& isolated) {
    RecordF("getCnCoreCount");
    if (TheScript().coreCountFails) {
        errors.setMessage(QxNSeverity::Error, 0, 1, "board", "no core count");
        usable = 0;  // as the real one, which then knows only some of them
        total = TheScript().totalCores;
        return;
    }
    total = TheScript().totalCores;
    usable = TheScript().usableCores;
    isolated = 0;
}

void QxCScannerBoardHw::setContainerRteCoresCount(unsigned int count) {
    RecordF("setContainerRteCoresCount(%u)", count);
}

QxSBlockDeviceMountInfo* QxCScannerBoardHw::getBlockDeviceMountInfo(QxCErrorListPool& errors) {
    RecordF("getBlockDeviceMountInfo");
    if (TheScript().mountInfoFails) {
        errors.setMessage(QxNSeverity::Error, 0, 2, "board", "no mount information");
        return nullptr;
    }
    const auto& mounts = TheScript().mounts;
    auto* info = static_cast<QxSBlockDeviceMountInfo*>(
        calloc(1, sizeof(QxSBlockDeviceMountInfo) + mounts.size() * sizeof(QxSBlockDeviceMount)));
    info->count = static_cast<std::uint32_t>(mounts.size());
    for (size_t i = 0; i < mounts.size(); ++i) {
        // A field may be full, without a terminating zero.
        memcpy(info->entries[i].mountPoint, mounts[i].mountPoint.data(),
               std::min(mounts[i].mountPoint.size(), sizeof(info->entries[i].mountPoint)));
        memcpy(info->entries[i].device, mounts[i].device.data(),
               std::min(mounts[i].device.size(), sizeof(info->entries[i].device)));
        info->entries[i].filesystemType = mounts[i].filesystemType;
    }
    return info;
}

int QxCBoardStatus::getState(QxCErrorListPool&, int selector, int instance) {
    RecordF("getState(%d, %d)", selector, instance);
    return TheScript().realtimeApplication;
}

int QxLinuxBaseUtils_CpuSetCreate(const char* name, const QxTBitmap* mask) {
    std::string cores;
    // Also those behind the last bit, which nobody should set.
    for (std::uint32_t core = 0; core < (mask->bits + 63) / 64 * 64; ++core) {
        if ((mask->words[core / 64] >> (core % 64) & 1) != 0) {
            cores += std::to_string(core) + " ";
        }
    }
    RecordF("CpuSetCreate(%s, %sof %u)", name, cores.c_str(), mask->bits);
    return 0;
}

int QxLinuxBaseUtils_CpuSetLoadBalance(const char* name, int on) {
    RecordF("CpuSetLoadBalance(%s, %d)", name, on);
    return 0;
}

int QxLinuxBaseUtils_CpuSetAttach(const char* name, int thread) {
    RecordF("CpuSetAttach(%s, %d)", name, thread);
    return 0;
}

QxNSmartWebApi::QxCWebSocket::~QxCWebSocket() = default;
