// The operations that the service passes on to its compose and plugin handlers.

#include "QxCContainer.h"

namespace QxNContainer {

int QxCContainer::CreateCompose(const char* name, QxNJson::json& result) {
    return _composeHandler.composeCreate(name, result);
}

int QxCContainer::StartCompose(const char* name, QxNJson::json& result) {
    return _composeHandler.composeStart(name, result);
}

int QxCContainer::StopCompose(const char* name, QxNJson::json& result) {
    return _composeHandler.composeStop(name, result);
}

int QxCContainer::RemoveCompose(const char* name, QxNJson::json& result) {
    return _composeHandler.composeRemove(name, result);
}

QxNJson::json QxCContainer::listPlugins() { return _pluginHandler.listPlugins(); }

int QxCContainer::addPluginToConfig(const std::string& name, const std::string& version) {
    return _pluginHandler.addPluginToConfig(name, version);
}

int QxCContainer::removePluginFromConfig(const std::string& name, const std::string& version) {
    return _pluginHandler.removePluginFromConfig(name, version);
}

int QxCContainer::removePluginFromConfigByFileName(const std::string& fileName) {
    return _pluginHandler.removePluginFromConfigByFileName(fileName);
}

void QxCContainer::scanContainerPluginsDir() { _pluginHandler.scanPluginsDir(); }

}  // namespace QxNContainer
