// A descriptor opened through the system-call seam that closes itself through
// it on every path, so a simulated device sees every close.
#pragma once

#include "sysSeam.h"

class seamFd {
public:
    seamFd(const char *path, int flags) : fd_(platformSys.open(path, flags, 0)) {}
    // One opened otherwise through the seam (platformSys.openNoLinks).
    explicit seamFd(int fd) : fd_(fd) {}
    seamFd(const seamFd &) = delete;
    seamFd &operator=(const seamFd &) = delete;
    ~seamFd()
    {
        if (fd_ >= 0) {
            platformSys.close(fd_);
        }
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};
