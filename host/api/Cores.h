#pragma once

#include "QxNJson.h"

#include <string>

/// The CPU set of the containers, as the kernel has it.
// NOLINTNEXTLINE(bugprone-exception-escape): moving the JSON type does not throw
struct ContainerCpuSet {
    bool exists = false;
    std::string effective;    ///< list of cores, such as "1,3-4"
    std::vector<int> cores;   ///< the same as numbers
    QxNJson::json strangers;  ///< processes that belong to no container and to no container tool
};

/// Reads it from the control groups, of either version.
ContainerCpuSet ReadContainerCpuSet();

/// @return the numbers of a list of cores; what is malformed is left out
std::vector<int> CoresOfList(const std::string& list);

/// Who has which core of the board. Blocks for a moment.
QxNJson::json DescribeCores(unsigned configured, unsigned maximum);
