#include "PlatformMessages.h"

#include "QxCErrorManager.h"

#include <memory>

namespace QxNLinuxPlatform {

namespace {

void store(QxCErrorListPool& list, int severity, MessageNumber number, const std::string& text) {
    list.setMessage(severity, 0, static_cast<int>(number), MessageSource, "%s", text.c_str());
}

}  // namespace

void addError(QxCErrorListPool* errors, MessageNumber number, const std::string& text) {
    if (errors != nullptr) {
        store(*errors, QxNSeverity::Error, number, text);
    }
}

void report(int severity, MessageNumber number, const std::string& text) {
    QxCErrorManager& manager = *QxCErrorManager::getSingleton();
    if (QxCErrorListPool* const master = manager.getMasterErrorList(); master != nullptr) {
        store(*master, severity, number, text);
        return;
    }
    const auto deleteList = [&manager](QxCErrorListPool* list) { manager.deleteErrorList(list); };
    const std::unique_ptr<QxCErrorListPool, decltype(deleteList)> temporary(
        manager.createErrorList(0, 1, 1, 0, 8192), deleteList);
    store(*temporary, severity, number, text);
    manager.sendErrorList(temporary.get(), 0);
}

}  // namespace QxNLinuxPlatform
