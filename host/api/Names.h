#pragma once

#include "QxNJson.h"
#include "http/Message.h"

#include <string>

struct Ground;

/// @return the name as it is
/// @throws Problem when Podman would give no container such a name or id
const std::string& ContainerName(const std::string& name);

/// @return the image's name or id as part of a URL
/// @throws Problem when it is none
std::string ImageInUrl(const std::string& image);

/// Removes a file on the thread for disks. The texts have to last as long as that takes.
/// @throws Problem not found with that text when there is no such file, or what the system says when it cannot be removed
QxNHttp::Task<void> RemoveFile(const std::string& path, const std::string& notFound);

/// All containers, by name, as the interface shows them.
QxNHttp::Task<QxNJson::json> ListContainers(Ground& ground);
