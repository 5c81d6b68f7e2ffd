#include "LogServerFixture.h"

#include <sys/wait.h>
#include <cstdio>
#include <utility>

using testing::Pair;

namespace {

/// The command line client at a log server.
class LogTool : public LogServerTest {
protected:
    LogTool() { Serve(); }

    /// @return the exit status, and what was shown
    std::pair<int, std::string> Show(const std::string& arguments) const {
        const std::string command =
            QX_LOG_TOOL " --port " + std::to_string(server->Port()) + " " + arguments + " 2>&1";
        FILE* const output = popen(command.c_str(), "r");
        std::string shown;
        char bytes[4096];
        while (const size_t count = fread(bytes, 1, sizeof(bytes), output)) {
            shown.append(bytes, count);
        }
        return {WEXITSTATUS(pclose(output)), shown};
    }

    static ScriptedServer::Script Frames(const std::vector<std::string>& payloads) {
        std::string stream;
        for (const std::string& payload : payloads) {
            stream += LogFrame(payload);
        }
        return ScriptedServer::Answer(200, stream);
    }
};

TEST_F(LogTool, ShowsALineThatComesInSeveralMessagesAsOne) {
    logs = Frames({"one", " and", " a half\ntwo\n\nth", "ree\n"});
    EXPECT_THAT(Show("web"), Pair(0, "one and a half\ntwo\n\nthree\n"));
}

TEST_F(LogTool, ShowsTheLastLineAlsoWithoutItsEnd) {
    logs = Frames({"one\ntw", "o"});
    EXPECT_THAT(Show("web"), Pair(0, "one\ntwo\n"));
}

TEST_F(LogTool, CountsLinesNotMessages) {
    logs = Frames({"o", "n", "e\ntwo\nthree\n"});
    EXPECT_THAT(Show("web --lines 2"), Pair(0, "one\ntwo\n"));
    EXPECT_THAT(Show("web --lines 0"), Pair(0, ""));
}

TEST_F(LogTool, ShowsZeroBytesAndLongLinesWhole) {
    const std::string line = std::string("a\0b", 3) + std::string(3000000, 'x');
    logs = Frames({line.substr(0, 900000), line.substr(900000) + "\nend\n"});
    EXPECT_TRUE(Show("web") == std::pair(0, line + "\nend\n"));
}

TEST_F(LogTool, ShowsAnEndlessLineInPieces) {
    logs = Frames({std::string(1000000, 'x'), std::string(100000, 'y'), "z\n"});
    EXPECT_TRUE(Show("web") == std::pair(0, std::string(1000000, 'x') + std::string(100000, 'y') + "\nz\n"));
}

TEST_F(LogTool, TellsOfALogThatIsMissing) {
    inspect = logs = ScriptedServer::Answer(404, "{}");
    EXPECT_THAT(Show("ghost"), Pair(1, "qxlogs: ghost: no such container\n"));
}

}  // namespace
