#pragma once

#include "QxCRPScanner.h"
#include "Recording.h"
#include "crp/PluginHeader.h"
#include "tests/crp/CrpTest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A scanner whose construction is already out of the log.
class CrpScanner : public CrpTest {
protected:
    static constexpr const char* UserDir = "/userstorage1/container_rte/plugins";
    static constexpr const char* SystemDir = "/usr/Quolex/container/plugins";

    static std::string InUserDir(const std::string& name) { return std::string(UserDir) + "/" + name; }
    static std::string InSystemDir(const std::string& name) { return std::string(SystemDir) + "/" + name; }

    /// @return "name version" of each plugin
    static std::vector<std::string> Labels(const std::vector<CRP::PluginInfo>& plugins) {
        std::vector<std::string> labels;
        for (const CRP::PluginInfo& plugin : plugins) {
            labels.push_back(CRP::textOf(plugin.header.name) + " " + CRP::textOf(plugin.header.version));
        }
        return labels;
    }

    CrpScanner() { Recording::Forget(); }

    std::vector<CRP::PluginInfo> ScanUserDir() const {
        std::vector<CRP::PluginInfo> found;
        _scanner.scanDirectory(UserDir, found);
        return found;
    }

    bool Reads(const std::string& path) const {
        CrpPluginHeader header{};
        return _scanner.readHeader(path, header);
    }

    CRP::QxCRPScanner _scanner{UserDir};
};

class CrpScannerVerbose : public CrpScanner {
protected:
    CrpScannerVerbose() { Recording::TheScript().logLevel = "DEBUG_VERBOSE"; }
};
