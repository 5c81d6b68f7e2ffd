#pragma once

#include "QxCErrorManager.h"

namespace QxNSupport {

/// @return the error manager in use
inline QxCErrorManager& ErrorManager() {
    return QxCErrorManager::s_pErrorManager != nullptr ? *QxCErrorManager::s_pErrorManager
                                                       : *QxCErrorManager::getSingleton();
}

/// The calling thread's master error list where it has one, else a temporary list that goes with the scope.
class ErrorListScope {
public:
    ErrorListScope() : _manager(ErrorManager()), _isTemporary(!_manager.hasMasterErrorList()) {
        _list = _isTemporary ? _manager.createErrorList(0, 1, 20, 5, 300) : _manager.getMasterErrorList();
    }
    ErrorListScope(const ErrorListScope&) = delete;
    ErrorListScope& operator=(const ErrorListScope&) = delete;
    ~ErrorListScope() {
        if (_isTemporary) {
            _manager.deleteErrorList(_list);
        }
    }

    QxCErrorListPool& List() { return *_list; }

private:
    QxCErrorManager& _manager;
    bool _isTemporary;
    QxCErrorListPool* _list;
};

}  // namespace QxNSupport
