#pragma once

#include <unistd.h>

#include <utility>

namespace QxNLinuxPlatform {

/// The one owner of a file descriptor.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor = -1) : _descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            close();
            _descriptor = std::exchange(other._descriptor, -1);
        }
        return *this;
    }
    ~FileDescriptor() { close(); }

    bool isOpen() const { return _descriptor >= 0; }
    int get() const { return _descriptor; }

private:
    // Linux releases the number even when close() reports EINTR, so it is never repeated.
    void close() {
        if (_descriptor >= 0) {
            ::close(_descriptor);
        }
        _descriptor = -1;
    }

    int _descriptor;
};

}  // namespace QxNLinuxPlatform
