#pragma once

#include "QxCErrorManager.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What several tests of the platform services need.
namespace PlatformTest {

struct DeleteList {
    void operator()(QxCErrorListPool* list) const { QxCErrorManager::getSingleton()->deleteErrorList(list); }
    void operator()(QxCErrorList* list) const { QxCErrorManager::getSingleton()->deleteMessageList(list); }
};
using ErrorListOwner = std::unique_ptr<QxCErrorListPool, DeleteList>;
using MessageListOwner = std::unique_ptr<QxCErrorList, DeleteList>;

inline ErrorListOwner newErrorList(int maxEntries = 20, int maxEntryBytes = 300) {
    return ErrorListOwner(
        QxCErrorManager::getSingleton()->createErrorList(0, 1, maxEntries, 5, maxEntryBytes));
}

inline MessageListOwner newMessageList(int maxEntries = 100, int maxEntryBytes = 300) {
    return MessageListOwner(
        QxCErrorManager::getSingleton()->createMessageList(0, 1, maxEntries, 5, maxEntryBytes));
}

inline std::vector<std::string> texts(const QxCErrorList& list) {
    std::vector<std::string> result;
    for (const QxSMessage& message : list.getMessages()) {
        result.push_back(message.text);
    }
    return result;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        result.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

/// Makes a list the calling thread's master error list for a scope.
class MasterListScope {
public:
    explicit MasterListScope(QxCErrorListPool& list) {
        QxCErrorManager::getSingleton()->setMasterErrorList(&list, -1, true);
    }
    MasterListScope(const MasterListScope&) = delete;
    MasterListScope& operator=(const MasterListScope&) = delete;
    ~MasterListScope() { QxCErrorManager::getSingleton()->clearMasterErrorList(-1); }
};

/// A process of its own in which a function runs.
class ChildProcess {
public:
    /// Starts it; there must be no other threads that may hold locks.
    explicit ChildProcess(const std::function<void()>& body);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    /// Waits until it ends.
    ~ChildProcess();

private:
    int _id;
};

}  // namespace PlatformTest
