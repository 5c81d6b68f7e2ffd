#pragma once

#include "QxExport.h"

#include <string>

/// Every place on the board that the container runtime touches under a name of its own. Read-only; may be
/// read from any thread once the library is loaded.
namespace QxNContainer::QxNContainerPaths {

/// The firmware image: a squashfs file with the container tools (a file, although it reads like a directory).
QX_EXPORT extern const std::string CONTAINER_TOOLS;
/// Where the firmware image is mounted.
QX_EXPORT extern const std::string CONTAINER_TOOLS_MOUNTPOINT;

QX_EXPORT extern const std::string PODMAN;
QX_EXPORT extern const std::string
    PODMAN_LIBS;  ///< library search path of the tools, with its trailing slash
QX_EXPORT extern const std::string CRUN;
QX_EXPORT extern const std::string CONMON;
QX_EXPORT extern const std::string DOCKER_COMPOSE;
QX_EXPORT extern const std::string CNI_PLUGINS;  ///< a directory
QX_EXPORT extern const std::string POLICY;
QX_EXPORT extern const std::string CONTAINERS_CONFIG;
QX_EXPORT extern const std::string STORAGE_CONFIG;

/// Podman's storage as the tools see it: a link into the user storage.
QX_EXPORT extern const std::string CONTAINER_BASE_PATH;
/// Where Podman's REST service listens.
QX_EXPORT extern const std::string PODMAN_SOCKET;
/// Certificates of the REST service on TCP: ca.crt, server.crt, server.key.
QX_EXPORT extern const std::string CONTAINER_CERTS_DIR;
/// For the host; the library itself does not use it.
QX_EXPORT extern const std::string IMAGES_STORAGE_DIR;
QX_EXPORT extern const std::string SETTINGS_FILE;
QX_EXPORT extern const std::string COMPOSE_FILES_PATH;  ///< with its trailing slash
QX_EXPORT extern const std::string PLUGINS_DIR;         ///< plugins that the user installed
QX_EXPORT extern const std::string PLUGIN_CONFIG_FILE;

}  // namespace QxNContainer::QxNContainerPaths

/// The compose tool.
namespace QxNComposeFileHandler::ComposeTool {

QX_EXPORT extern const char* const Exe;   ///< program name, passed as argument zero
QX_EXPORT extern const char* const Path;  ///< file that is executed

}  // namespace QxNComposeFileHandler::ComposeTool
