#include "daemon/Options.h"

#include "Sandbox.h"

#include <gmock/gmock.h>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <vector>

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

namespace {

/// The daemon's command line and configuration file.
class DaemonOptions : public testing::Test {
protected:
    /// @return the exit code when the daemon is not to run
    std::optional<int> Read(const std::vector<std::string>& words) {
        std::vector<std::string> storage{"qxcontainerd"};
        storage.insert(storage.end(), words.begin(), words.end());
        std::vector<char*> arguments;
        for (std::string& word : storage) {
            arguments.push_back(word.data());
        }
        options = {};
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto exitCode = ReadOptions(static_cast<int>(arguments.size()), arguments.data(), options);
        output = testing::internal::GetCapturedStdout();
        errors = testing::internal::GetCapturedStderr();
        return exitCode;
    }

    static void Configure(const std::string& ini) {
        Sandbox::WriteFile("/etc/qxcontainerd/qxcontainerd.ini", ini);
    }

    Options options;
    std::string output;
    std::string errors;
};

TEST_F(DaemonOptions, HaveDefaults) {
    EXPECT_EQ(Read({}), std::nullopt);
    EXPECT_EQ(options.server.socket, "/run/qxcontainerd/api.sock");
    EXPECT_EQ(options.server.socketGroup, "qxcontainerd");
    EXPECT_THAT(options.server.listen, ElementsAre("127.0.0.1:8089"));
    EXPECT_THAT(options.server.page, testing::EndsWith("share/qxcontainerd/page"));
    EXPECT_FALSE(options.enable);
    EXPECT_EQ(options.tcpPort, std::nullopt);
    EXPECT_EQ(options.cores, std::nullopt);
    EXPECT_EQ(options.keeper.restart.rule, RestartPolicy::Rule::OnFailure);
}

TEST_F(DaemonOptions, AreReadFromTheConfigurationFile) {
    Configure(
        "enable=true\ntcp-port=8443\ncores=2\nlisten=[::1]:1\n"
        "listen=127.0.0.1:2\nrestart=always\nliveness-interval=0.5\n"
        "max-upload=8GiB\n");
    EXPECT_EQ(Read({}), std::nullopt);
    EXPECT_TRUE(options.enable);
    EXPECT_THAT(options.tcpPort, Optional(8443U));
    EXPECT_THAT(options.cores, Optional(2U));
    EXPECT_THAT(options.server.listen, ElementsAre("[::1]:1", "127.0.0.1:2"));
    EXPECT_EQ(options.keeper.restart.rule, RestartPolicy::Rule::Always);
    EXPECT_EQ(options.keeper.interval, milliseconds(500));
    EXPECT_EQ(options.largestUpload, 8ULL << 30);
}

TEST_F(DaemonOptions, OfTheCommandLineGoBeforeTheFile) {
    Configure("tcp-port=8443\nlisten=127.0.0.1:1\n");
    EXPECT_EQ(Read({"--tcp-port", "9443", "--listen", "none"}), std::nullopt);
    EXPECT_THAT(options.tcpPort, Optional(9443U));
    EXPECT_THAT(options.server.listen, IsEmpty());
}

TEST_F(DaemonOptions, ThatAreWrongAreRefused) {
    const std::vector<std::vector<std::string>> wrong = {
        {"--tcp-port", "80"},     {"--tcp-port", "111"},        {"--tcp-port", "65536"}, {"--tcp-port", "x"},
        {"--restart", "maybe"},   {"--liveness-interval", "0"}, {"--max-clients", "0"},  {"--colour"},
        {"--config", "/nowhere"}, {"--max-upload", "much"}};
    for (const auto& words : wrong) {
        EXPECT_THAT(Read(words), Optional(2)) << words[0];
        EXPECT_THAT(errors, HasSubstr(words.back())) << "what is wrong is named";
    }
    EXPECT_THAT(Read({"--key", "/x.key"}), Optional(2));
    EXPECT_THAT(Read({"--certificate", "/x.crt"}), Optional(2));
    EXPECT_THAT(errors, HasSubstr("belong together"));
    EXPECT_THAT(Read({"--host", "board.example:8089"}), Optional(2));
    EXPECT_THAT(errors, HasSubstr("without a port, not 'board.example:8089'"));
    EXPECT_EQ(Read({"--host", "board.example", "--host", "[fd00::1]"}), std::nullopt);
    EXPECT_THAT(options.server.hosts, ElementsAre("board.example", "[fd00::1]"));
    EXPECT_THAT(Read({"--make-token", ""}), Optional(2));
    Configure("tcp-prot=8443\n");
    EXPECT_THAT(Read({}), Optional(2));
    EXPECT_THAT(errors, HasSubstr("tcp-prot"));
}

TEST_F(DaemonOptions, TellWhatTheyMean) {
    EXPECT_THAT(Read({"--help"}), Optional(0));
    EXPECT_THAT(output, HasSubstr("Exit codes"));
    EXPECT_THAT(Read({"--version"}), Optional(0));
}

/// The file that is installed shows every option with its default.
TEST_F(DaemonOptions, AreAllInTheInstalledConfiguration) {
    std::ifstream file(QX_SAMPLE_CONFIGURATION);
    const std::string sample{std::istreambuf_iterator<char>(file), {}};

    EXPECT_THAT(Read({"--print-config"}), Optional(0));
    EXPECT_EQ(output, sample) << "qxcontainerd --print-config makes it";

    Read({"--help"});
    const std::regex name("\n  (?:-h,)?--([a-z-]+)");
    size_t count = 0;
    for (std::sregex_iterator option(output.begin(), output.end(), name), end; option != end; ++option) {
        const std::string word = (*option)[1];
        const bool isForTheCommandLine = word == "help" || word == "config" || word == "version" ||
                                         word == "print-config" || word == "make-token" || word == "act";
        EXPECT_EQ(sample.find("\n#" + word + "=") == std::string::npos, isForTheCommandLine) << word;
        ++count;
    }
    EXPECT_GT(count, 20U);
}

TEST_F(DaemonOptions, OfTheInstalledConfigurationAreTheDefaults) {
    Read({"--print-config"});
    const std::string all = std::regex_replace(output, std::regex("#([a-z-]+=[^\n])"), "$1");
    Configure(all);
    EXPECT_EQ(Read({}), std::nullopt) << errors;
    const Options configured = options;
    Sandbox::WriteFile("/etc/qxcontainerd/qxcontainerd.ini", "");
    Read({});
    EXPECT_EQ(configured.server.listen, options.server.listen);
    EXPECT_EQ(configured.server.clients, options.server.clients);
    EXPECT_EQ(configured.largestUpload, options.largestUpload);
    EXPECT_EQ(configured.keeper.interval, options.keeper.interval);
    EXPECT_EQ(configured.keeper.restart.rule, options.keeper.restart.rule);
    EXPECT_EQ(configured.keeper.restart.longest, options.keeper.restart.longest);
}

}  // namespace
