// A descriptor that closes itself on every path.
#pragma once

#include <unistd.h>

class uniqueFd {
public:
    uniqueFd() = default;
    explicit uniqueFd(int fd) : fd_(fd) {}
    uniqueFd(const uniqueFd &) = delete;
    uniqueFd &operator=(const uniqueFd &) = delete;
    uniqueFd(uniqueFd &&other) noexcept : fd_(other.release()) {}
    uniqueFd &operator=(uniqueFd &&other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~uniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
