// A stand-in for a program of the board: appends its call to /programs.log, one field per line, and becomes a
// shell that runs the script beside it.

#include <fcntl.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <string>

namespace {

std::string SelfPath() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

void Append(std::string& record, char kind, const std::string& text) {
    record += kind;
    for (const char c : text) {
        record += c == '\n' ? '\001' : c;  // a field is a line
    }
    record += '\n';
}

}  // namespace

int main(int argc, char** argv) {
    const std::string self = SelfPath();
    std::string record;
    Append(record, 'P', self);
    for (int i = 0; i < argc; ++i) {
        Append(record, 'A', argv[i]);
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        Append(record, 'E', *variable);
    }
    const int log = open("/programs.log", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (log < 0 || write(log, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
        return 99;
    }
    const std::string script = self + ".script";
    std::string shell = "sh";
    argv[0] = const_cast<char*>(script.c_str());
    std::string arguments;
    char** words = static_cast<char**>(calloc(static_cast<size_t>(argc) + 2, sizeof(char*)));
    words[0] = shell.data();
    for (int i = 0; i < argc; ++i) {
        words[i + 1] = argv[i];
    }
    execv("/bin/sh", words);
    return 98;
}
