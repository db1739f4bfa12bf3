// The caller's memory, read by address as the picdev driver reads it when it
// sends on what it took by address, which may be long after the ioctl that
// named the address (at the next request or at the close). The front ends
// read the process directly (as its parent, or as root).
#include "tarnholdSim.h"

#include "uniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

bool tarnholdSimReadProcessMemory(pid_t pid, uint64_t address, void *dst, size_t len)
{
    if (pid <= 0 || address == 0) {
        return false;
    }
    if (len == 0) {
        return true;
    }
    struct iovec local = {dst, len};
    struct iovec remote = {reinterpret_cast<void *>(static_cast<uintptr_t>(address)), len};
    const ssize_t n = process_vm_readv(pid, &local, 1, &remote, 1, 0);
    if (n == static_cast<ssize_t>(len)) {
        return true;
    }
    if (n >= 0 || (errno != ENOSYS && errno != EPERM)) {
        return false;
    }
    // Where the call is not allowed, the same through the process's mem file.
    const uniqueFd mem(::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    return mem.valid() && ::pread(mem.get(), dst, len, static_cast<off_t>(address)) == static_cast<ssize_t>(len);
}
