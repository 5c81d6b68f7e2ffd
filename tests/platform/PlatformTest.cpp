#include "PlatformTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

PlatformTest::ChildProcess::ChildProcess(const std::function<void()>& body) : _id(::fork()) {
    if (_id == 0) {
        body();
        ::_exit(0);
    }
}

PlatformTest::ChildProcess::~ChildProcess() {
    while (::waitpid(_id, nullptr, 0) < 0 && errno == EINTR) {
    }
}
