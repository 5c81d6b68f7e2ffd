#include "QxCErrorManager.h"

#include "ErrorListImpl.h"
#include "PlatformMessages.h"

using QxNLinuxPlatform::MessageNumber;

namespace {

constexpr int CallingThread = -1;

thread_local QxCErrorListPool* t_masterErrorList = nullptr;

}  // namespace

QxCErrorManager* QxCErrorManager::s_pErrorManager = nullptr;

QxCErrorManager::QxCErrorManager() = default;
QxCErrorManager::~QxCErrorManager() = default;

QxCErrorManager* QxCErrorManager::getSingleton() {
    // Never destroyed: destructors of other static objects may still report.
    static QxCErrorManager* const manager = s_pErrorManager = new QxCErrorManager;
    return manager;
}

bool QxCErrorManager::hasMasterErrorList() const { return t_masterErrorList != nullptr; }

QxCErrorListPool* QxCErrorManager::getMasterErrorList() const { return t_masterErrorList; }

void QxCErrorManager::setMasterErrorList(QxCErrorListPool* list, int thread, bool replace) {
    if (thread != CallingThread) {
        addError(list, MessageNumber::ArgumentNotSupported,
                 "The master error list can be set for the calling thread only");
        return;
    }
    if (!replace && list != nullptr && t_masterErrorList != nullptr && t_masterErrorList != list) {
        list->setMessage(QxNSeverity::Warning, 0, static_cast<int>(MessageNumber::MasterErrorListReplaced),
                         QxNLinuxPlatform::MessageSource,
                         "The thread's previous master error list was replaced");
    }
    t_masterErrorList = list;
}

void QxCErrorManager::clearMasterErrorList(int thread) {
    if (thread == CallingThread) {
        t_masterErrorList = nullptr;
    }
}

void QxCErrorManager::sendErrorList(QxCErrorListPool* list, int /*flags*/) {
    if (list != nullptr) {
        QxNLinuxPlatform::deliverMessages(nullptr, list->_impl->take());
    }
}

QxCErrorListPool* QxCErrorManager::createErrorList(int /*group*/, int /*overflow*/, int maxEntries,
                                                   int /*maxArguments*/, int maxEntryBytes) {
    return new QxCErrorListPool(maxEntries, maxEntryBytes);
}

void QxCErrorManager::deleteErrorList(QxCErrorListPool* list) {
    if (list != nullptr && list == t_masterErrorList) {
        t_masterErrorList = nullptr;
    }
    delete list;
}

QxCErrorList* QxCErrorManager::createMessageList(int /*group*/, int /*overflow*/, int maxEntries,
                                                 int /*maxArguments*/, int maxEntryBytes) {
    return new QxCErrorList(maxEntries, maxEntryBytes);
}

void QxCErrorManager::deleteMessageList(QxCErrorList* list) { delete list; }
