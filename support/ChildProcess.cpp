#include "support/ChildProcess.h"

#include <unistd.h>

namespace QxNSupport {

SpawnResult Spawn(const char* path, const std::vector<std::string>& arguments,
                  const posix_spawn_file_actions_t* actions) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    return Spawn(path, words.data(), actions);
}

SpawnResult Spawn(const char* path, char* const* arguments, const posix_spawn_file_actions_t* actions) {
    SpawnResult result;
    result.error = posix_spawn(&result.pid, path, actions, nullptr, arguments, environ);
    if (result.error != 0) {
        result.pid = -1;
    }
    return result;
}

}  // namespace QxNSupport
