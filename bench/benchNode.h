// A device node that costs nothing, for benchmarks of the service's own work:
// opening the microcontroller's node gives a descriptor no real file has, and
// every other path goes to the real system. Each benchmark brings the ioctls.
#pragma once

#include "qxUsb.h"
#include "sysSeam.h"

#include <cstring>

constexpr int BENCH_NODE_FD = 1 << 20; // never a real descriptor

inline int benchNodeOpen(const char *path, int flags, mode_t mode)
{
    return std::strcmp(path, QX_USB_DEVICE_PATH) == 0 ? BENCH_NODE_FD : PLATFORM_SYS_LIBC.open(path, flags, mode);
}

inline int benchNodeClose(int fd)
{
    return fd == BENCH_NODE_FD ? 0 : PLATFORM_SYS_LIBC.close(fd);
}
