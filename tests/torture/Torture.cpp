// Drives every public operation through the failure of every single call of one function, and of all calls
// from one on, until none fails any more. Each run is a process of its own.

#include "Torture.h"

#include "FailingCalls.h"
#include "QxCContainer.h"
#include "QxNJson.h"
#include "Recording.h"
#include "Sandbox.h"
#include "tests/unit/LogStreamClient.h"
#include "tests/unit/ScriptedServer.h"

#include <cxxabi.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

// What would only cost time: the pause before services are watched, and the flush of all of the machine's
// disks.
extern "C" {
int nanosleep(const timespec*, timespec*) { return usleep(2000); }
void sync() {}
}

namespace Torture {

void Outcome::Add(const char* format, ...) {
    const size_t length = strlen(_text);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(_text + length, _size - length, format, arguments);
    va_end(arguments);
}

namespace {

constexpr unsigned int DeadlineSeconds = 20;
constexpr unsigned long MostCalls = 2000;  // of one function; an operation that makes more is broken
constexpr const char* NoFunction = "none";

/// What a run tells the process that started it.
struct Report {
    char outcome[8192];
    char end[256];  ///< how it terminated, instead of the outcome, which other threads may still write to
    unsigned long failedCalls;
    long blocksLeft;    ///< of memory
    void* callers[64];  ///< of std::terminate
    int callerCount;
};

Report* report = nullptr;
const Operation* running = nullptr;
bool* somethingFailedOnce = nullptr;  // in any operation, by function; shared by all processes
long blocksOfCleanRun = 0;            // what an operation leaves when it runs for the first time

const char* ExceptionName() {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    if (type == nullptr) {
        return "no exception";
    }
    if (*type == typeid(std::bad_alloc)) {
        return "bad_alloc";
    }
    if (*type == typeid(std::filesystem::filesystem_error)) {
        return "filesystem_error";
    }
    return type->name();
}

[[noreturn]] void TellAndEnd() {
    FailingCalls_Disarm();
    Outcome end(report->end, sizeof(report->end));
    end.Add("terminate because of %s", ExceptionName());
    report->failedCalls = FailingCalls_Failed();
    report->callerCount = backtrace(report->callers, static_cast<int>(std::size(report->callers)));
    running->release();
    _exit(1);
}

/// The functions of this program by their addresses.
class Functions {
public:
    Functions() {
        FILE* const list = popen("nm -C --defined-only /proc/$PPID/exe", "r");
        char line[65536];
        while (fgets(line, sizeof(line), list) != nullptr) {
            char* name = nullptr;
            const unsigned long address = strtoul(line, &name, 16);
            if (strlen(name) > 3 && strchr("tTwWvVuU", name[1]) != nullptr) {
                _names[address] = std::string(name + 3, strcspn(name + 3, "\n"));
            }
        }
        pclose(list);
    }

    /// @return the name of the function that an address lies in; empty outside of this program
    std::string NameOf(const void* address) const {
        const auto number = reinterpret_cast<unsigned long>(address);
        const auto next = _names.upper_bound(number);
        return next == _names.begin() || next == _names.end() ? std::string() : std::prev(next)->second;
    }

private:
    std::map<unsigned long, std::string> _names;
};

/// @return the function of ours that let the process terminate
std::string Culprit() {
    static const Functions functions;
    for (int i = 0; i < report->callerCount; ++i) {
        const std::string name = functions.NameOf(report->callers[i]);
        if (name.find("json_value::destroy") != std::string::npos) {
            return "json_value::destroy";
        }
        if (!name.empty() && name.find("TellAndEnd") == std::string::npos && !name.starts_with("_")) {
            return name;
        }
    }
    return "nobody of ours";
}

/// What must be as it was before.
struct Holdings {
    std::vector<std::string> descriptors = Sandbox::OpenDescriptors();
    std::vector<int> children = Sandbox::Children();
    std::ptrdiff_t threads = Threads();
    int lists = Recording::LiveLists();

    static std::ptrdiff_t Threads() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    }

    void Compare(const Holdings& before, Outcome& outcome) const {
        if (descriptors != before.descriptors) {
            outcome.Add("; LEFT descriptors:");
            for (const std::string& descriptor : descriptors) {
                outcome.Add(" %s", descriptor.c_str());
            }
        }
        if (!children.empty()) {
            outcome.Add("; LEFT %zu children", children.size());
        }
        if (threads != before.threads) {
            outcome.Add("; LEFT a thread");
        }
        if (lists != before.lists) {
            outcome.Add("; LEFT %d lists", lists - before.lists);
        }
    }
};

/// Warnings and errors, without what differs from run to run.
std::string LogLines() {
    std::string lines;
    for (const std::string& line : Recording::Logs()) {
        if (line.starts_with("[WARNING]") || line.starts_with("[ERROR]")) {
            lines += " | " + line;
        }
    }
    lines = std::regex_replace(lines, std::regex("/dev/loop[0-9]+"), "/dev/loopN");
    lines = std::regex_replace(lines, std::regex("PID: [0-9]+"), "PID: N");
    lines = std::regex_replace(lines, std::regex("Quolex Container "), "");
    return std::regex_replace(lines, std::regex("\n"), " ");
}

/// Runs the operation without failing calls, which makes what a failure has kept from being made.
void RunAgain(const Operation& operation, Outcome& outcome) {
    char text[256];
    Outcome again(text, sizeof(text));
    try {
        operation.run(again);
        outcome.Add("; again %s", text);
    } catch (...) {
        outcome.Add("; again exception %s", ExceptionName());
    }
    Recording::Forget();
}

/// Runs the operation once in this process.
void RunHere(const Operation& operation, const char* function, unsigned long call, bool always,
             Outcome& outcome) {
    operation.prepare();
    running = &operation;
    Recording::Forget();
    const auto before = std::make_unique<Holdings>();
    const long blocks = FailingCalls_LiveBlocks();
    FailingCalls_Arm(function, call, always);
    try {
        operation.run(outcome);
        FailingCalls_Disarm();
    } catch (...) {
        FailingCalls_Disarm();
        outcome.Add("exception %s", ExceptionName());
    }
    report->failedCalls = FailingCalls_Failed();
    operation.inspect(outcome);
    {
        const std::string lines = LogLines();
        outcome.Add("%s", lines.c_str());
    }
    Recording::Forget();
    if (operation.isCold) {
        RunAgain(operation, outcome);
    }
    report->blocksLeft = FailingCalls_LiveBlocks() - blocks;
    const long allowed = operation.isCold ? blocksOfCleanRun : 0;
    if (report->blocksLeft > allowed) {
        outcome.Add("; LEFT %ld blocks of memory", report->blocksLeft - allowed);
    }
    // A thread that was joined is listed for another moment.
    Sandbox::Eventually([&] { return Holdings::Threads() <= before->threads; });
    Holdings().Compare(*before, outcome);
    operation.release();
}

/// @return the outcome of one run in a child
std::string Run(const Operation& operation, const char* function, unsigned long call, bool always) {
    memset(report, 0, sizeof(*report));
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(DeadlineSeconds);
        std::set_terminate(TellAndEnd);
        Outcome outcome(report->outcome, sizeof(report->outcome));
        RunHere(operation, function, call, always, outcome);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::string outcome = report->callerCount > 0 ? report->end + (" in " + Culprit()) : report->outcome;
    if (WIFSIGNALED(status)) {
        outcome += WTERMSIG(status) == SIGALRM ? "; NO END"
                                               : "; CRASHED by signal " + std::to_string(WTERMSIG(status));
    }
    // One that ends hands its own children on.
    for (std::vector<int> orphans; !(orphans = Sandbox::Children()).empty();) {
        for (const int orphan : orphans) {
            kill(orphan, SIGKILL);
            waitpid(orphan, nullptr, 0);
            outcome += "; LEFT a process";
        }
    }
    return outcome;
}

/// The outcomes that may be, as a file lists them: lines of an operation, the function that fails, "none"
/// where none does, and the outcome, all regular expressions. "define NAME TEXT" lets "<NAME>" stand for the
/// text.
class Rules {
public:
    explicit Rules(const char* path) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (line.empty() || line[0] == '#') {
                continue;
            }
            Rule rule{TakeWord(line), TakeWord(line), {}};
            for (const auto& [name, text] : _definitions) {
                for (size_t at = 0; (at = line.find(name, at)) != std::string::npos;) {
                    line.replace(at, name.size(), text);
                }
            }
            if (rule.operation == "define") {
                _definitions["<" + rule.function + ">"] = line;
            } else {
                rule.outcome = std::regex(line, std::regex::optimize);
                _rules.push_back(std::move(rule));
            }
        }
    }

    bool Allow(const std::string& operation, const std::string& function, const std::string& outcome) const {
        return std::any_of(_rules.begin(), _rules.end(), [&](const Rule& rule) {
            return std::regex_match(operation, std::regex(rule.operation)) &&
                   std::regex_match(function, std::regex(rule.function)) &&
                   std::regex_match(outcome, rule.outcome);
        });
    }

private:
    struct Rule {
        std::string operation;
        std::string function;
        std::regex outcome;
    };

    /// Takes the first word and the blanks behind it.
    static std::string TakeWord(std::string& line) {
        const std::string word = line.substr(0, line.find(' '));
        const size_t rest = line.find_first_not_of(' ', word.size());
        line = rest != std::string::npos ? line.substr(rest) : std::string();
        return word;
    }

    std::map<std::string, std::string> _definitions;
    std::vector<Rule> _rules;
};

/// The outcomes of one operation with one failing function.
class Findings {
public:
    Findings(const Operation& operation, const char* function, const Rules& rules)
        : _operation(operation), _function(function), _rules(rules) {}

    void Add(const std::string& outcome, const std::string& call, bool somethingFailed) {
        const std::string function = somethingFailed ? _function : NoFunction;
        Occurrences& occurrences = _outcomes[function + ": " + outcome];
        if (occurrences.count++ == 0) {
            occurrences.first = call;
            occurrences.isAllowed = _rules.Allow(_operation.name, function, outcome);
            _good = _good && occurrences.isAllowed;
        }
    }

    /// @return whether every outcome is one that may be
    bool Print(unsigned long calls, std::chrono::milliseconds elapsed) const {
        printf("%-26s %-18s %4lu calls, %2zu outcomes, %5lld ms%s\n", _operation.name, _function, calls,
               _outcomes.size(), static_cast<long long>(elapsed.count()), _good ? "" : "  FAILED");
        for (const auto& [outcome, occurrences] : _outcomes) {
            if (!occurrences.isAllowed || getenv("QX_TORTURE_VERBOSE") != nullptr) {
                printf("    %s %d times, first at call %s: %s\n",
                       occurrences.isAllowed ? "allowed" : "NOT ALLOWED", occurrences.count,
                       occurrences.first.c_str(), outcome.c_str());
            }
        }
        fflush(stdout);
        return _good;
    }

private:
    struct Occurrences {
        int count = 0;
        std::string first;
        bool isAllowed = false;
    };

    const Operation& _operation;
    const char* _function;
    const Rules& _rules;
    std::map<std::string, Occurrences> _outcomes;
    bool _good = true;
};

/// @return whether every outcome is one that may be
bool Torment(const Operation& operation, const char* function, const Rules& rules, bool& failedOnce) {
    const auto start = std::chrono::steady_clock::now();
    Findings findings(operation, function, rules);
    unsigned long calls = 0;
    for (const bool always : {false, true}) {
        for (unsigned long call = 1;; ++call) {
            if (call > MostCalls) {
                findings.Add("too many calls", std::to_string(call), true);
                break;
            }
            const std::string outcome = Run(operation, function, call, always);
            // A process that was killed could not say whether something had failed.
            const bool wasKilled = outcome.find("; CRASHED") != std::string::npos ||
                                   outcome.find("; NO END") != std::string::npos;
            const bool somethingFailed = report->failedCalls != 0 || wasKilled;
            findings.Add(outcome, std::to_string(call) + (always ? "+" : ""), somethingFailed);
            failedOnce = failedOnce || somethingFailed;
            if (!somethingFailed) {
                calls = std::max(calls, call - 1);
                break;
            }
        }
    }
    return findings.Print(calls, std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start));
}

/// Two frames of log with 11 and 200 bytes; endlessly only the first. A terminal's output would have no frames,
/// but these tell by their size who took them for what.
void SendLog(ScriptedServer::Connection& connection) {
    connection.StartChunked();
    connection.SendChunk(LogFrame("first line\n"));
    if (connection.request.Target().find("/endless/") != std::string::npos) {
        connection.WaitForEnd();
        return;
    }
    const std::string split = LogFrame(std::string(200, 's'));
    connection.SendChunk(split.substr(0, 5));
    connection.Pause(1);
    connection.SendChunk(split.substr(5));
    connection.EndChunks();
}

/// Answers the library's requests from a process of its own, so that its calls are not counted.
void StartPodmanService() {
    int ready[2];
    if (pipe(ready) != 0 || fork() != 0) {
        char byte = 0;
        close(ready[1]);
        if (read(ready[0], &byte, 1) != 1) {
            abort();
        }
        close(ready[0]);
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const ScriptedServer server("/run/podman/podman.sock", [](ScriptedServer::Connection& connection) {
        const std::string target = connection.request.Target();
        if (target.ends_with("/logs")) {
            SendLog(connection);
        } else if (target.ends_with("/terminal/json")) {
            ScriptedServer::SendAnswer(connection, 200, R"({"Config": {"Tty": true}})");
        } else if (target.ends_with("/json")) {
            ScriptedServer::SendAnswer(connection, 200, R"({"Config": {"Tty": false}})");
        } else {
            ScriptedServer::SendAnswer(connection, 200, std::string(40000, 'a'));
        }
    });
    if (write(ready[1], "r", 1) != 1) {
        abort();
    }
    for (;;) {
        pause();
    }
}

/// Runs one operation in a process with mounts and singletons of its own.
bool TormentInChild(const Operation& operation, const std::vector<const char*>& functions,
                    const Rules& rules) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        operation.furnish();
        if (!operation.isCold) {
            // What is made on first use is made here.
            for (int i = 0; i < 2; ++i) {
                char text[8192];
                Outcome outcome(text, sizeof(text));
                RunHere(operation, "malloc", 0, false, outcome);
            }
        } else {
            blocksOfCleanRun = LONG_MAX;
            Run(operation, "malloc", 0, false);
            blocksOfCleanRun = report->blocksLeft;
        }
        bool good = true;
        for (size_t i = 0; i < functions.size(); ++i) {
            good = Torment(operation, functions[i], rules, somethingFailedOnce[i]) && good;
        }
        _exit(good ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        printf("%s: killed by signal %d\n", operation.name, WTERMSIG(status));
    }
    return status == 0;
}

/// @return whether every function was called by some operation, or is listed as one that never is
bool EveryFunctionFailed(const std::vector<const char*>& functions, const Rules& rules) {
    bool good = true;
    for (size_t i = 0; i < functions.size(); ++i) {
        const bool isNeverCalled = rules.Allow("all", functions[i], "never called");
        if (somethingFailedOnce[i] == isNeverCalled) {
            printf("%-26s %-18s %s\n", "all", functions[i],
                   isNeverCalled ? "is called, which the rules deny" : "is never called");
            good = false;
        }
    }
    return good;
}

template <typename Type>
Type* Shared(size_t count) {
    return static_cast<Type*>(
        mmap(nullptr, count * sizeof(Type), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

}  // namespace

}  // namespace Torture

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr,
                "Usage: qx_torture RULES OPERATIONS FUNCTION...\nOPERATIONS is a regular expression.\n");
        return 2;
    }
    Sandbox::Enter();
    void* callers[1];
    backtrace(callers, 1);  // what the first call allocates
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const Torture::Rules rules(argv[1]);
    const std::vector<const char*> functions(argv + 3, argv + argc);
    Torture::report = Torture::Shared<Torture::Report>(1);
    Torture::somethingFailedOnce = Torture::Shared<bool>(functions.size());
    Torture::StartPodmanService();
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";  // so that every line is put together
    for (const char* function : functions) {
        if (!FailingCalls_Arm(function, 0, false)) {
            fprintf(stderr, "no function '%s'\n", function);
            return 2;
        }
        FailingCalls_Disarm();
    }
    bool good = true;
    size_t operations = 0;
    for (const Torture::Operation& operation : Torture::Operations()) {
        if (std::regex_match(operation.name, std::regex(argv[2]))) {
            good = Torture::TormentInChild(operation, functions, rules) && good;
            ++operations;
        }
    }
    if (operations == Torture::Operations().size()) {
        good = Torture::EveryFunctionFailed(functions, rules) && good;
    }
    return good && operations > 0 ? 0 : 1;
}
