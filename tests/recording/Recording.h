#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// The board's services as a test sees them: they answer as scripted and record every call, in one order.
namespace Recording {

/// What the services answer. Set it before the library asks.
struct Script {
    std::string logLevel = "INFO";  ///< option of the log level
    bool logLevelIsSet = true;      ///< false: the option is not configured, the default passed counts

    unsigned int totalCores = 8;
    unsigned int usableCores = 4;
    unsigned int hypervisorCores = 2;
    bool coreCountFails = false;

    struct Mount {
        std::string mountPoint;
        std::string device;
        std::uint32_t filesystemType;
    };
    std::vector<Mount> mounts;
    bool mountInfoFails = false;  ///< answers null

    int realtimeApplication = 0;

    bool createThreadFails = false;
    std::map<std::string, unsigned int> processes;  ///< answer of getProcessID; others are not found
    bool signalProcessFails = false;

    std::function<void(const std::string& event)>
        onEvent;  ///< called with every event, on the caller's thread
};

Script& TheScript();

/// @return everything recorded so far whose text begins with `prefix`, in order. Events look like
///   "log [INFO] text\n"                                  a call of the log file, as formatted
///   "getOption(section, option, default, 0)"
///   "message severity=3 number=151 source=... text=..."   one message handed to the message manager
///   "setContainerRteCoresCount(0)", "getBlockDeviceMountInfo", "getCnCoreCount", "getState(6, 0)"
///   "CpuSetCreate(libpod_parent, 1 6 7 of 8)", "CpuSetLoadBalance(libpod_parent, 1)",
///   "CpuSetAttach(libpod_parent, 0)", "createThread(PodmanServiceMonitor, 1, 5, 0)", followed by " into the master error list"
///   where it was given; "joinThread(-1)"
///   "getProcessID(name)", "signalProcess(pid, signal, value)"
///   "createErrorList(0, 1, 20, 5, 300)", "deleteErrorList", "createMessageList(...)", "resetList",
///   "deleteMessageList", "setMasterErrorList(-1, 0)", "sendErrorList(0)", "clearMasterErrorList(-1)"
std::vector<std::string> Events(const std::string& prefix = {});

/// @return the log lines without "log " and the line feed that ends each
std::vector<std::string> Logs();

/// @return the messages handed to the message manager, as "severity text"
std::vector<std::string> Messages();

/// @return the calls of all mutexes so far, in order: "lock(-1)", "unlock". They are no events.
std::vector<std::string> MutexCalls();

/// Adds an event of the test's own.
void Record(const std::string& event);

/// Forgets all events and the calls of mutexes.
void Forget();

/// @return lists created and not yet deleted
int LiveLists();

/// @return how often the error manager's singleton was asked for
int SingletonRequests();

/// Gives the calling thread a master error list until the end of the scope.
class MasterErrorList {
public:
    MasterErrorList();
    MasterErrorList(const MasterErrorList&) = delete;
    MasterErrorList& operator=(const MasterErrorList&) = delete;
    ~MasterErrorList();
};

}  // namespace Recording
