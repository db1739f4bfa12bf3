// Feeds arbitrary bytes to the firmware image loader as a file, and holds
// what the loader promises about a loaded image.
#include "evmLog.h"
#include "qxFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

struct {
    int fd = -1;
    char path[64] = {};
} fuzzQxFilePrivateMembers;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    auto &m = fuzzQxFilePrivateMembers;
    // A memory file named through /proc: every open starts at offset 0 and
    // nothing touches the disk.
    m.fd = memfd_create("fuzzQxFile", 0);
    if (m.fd < 0) {
        perror("memfd_create");
        abort();
    }
    snprintf(m.path, sizeof m.path, "/proc/self/fd/%d", m.fd);
    // Thousands of loads a second: keep the trace out of syslog and the
    // digest lines out of the fuzzer's output.
    evmLogSetSink([](int, const char *, int, const char *) {});
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto &m = fuzzQxFilePrivateMembers;
    if (ftruncate(m.fd, 0) != 0 || pwrite(m.fd, data, size, 0) != static_cast<ssize_t>(size)) {
        abort();
    }
    qxFileReset();
    const int32_t result = qxFileInit(m.path);
    // Nothing is ever written behind the flash range, whatever the file.
    const uint8_t *image = qxFileGetData();
    bool broken = (result != 0 && result != QX_FILE_BAD_ROW && result != QX_FILE_ERROR)
        || std::any_of(image + QX_FLASH_SIZE, image + QX_FILE_DATA_SIZE, [](uint8_t b) { return b != 0; });
    if (result == 0) {
        int32_t len = 0;
        uint8_t digest[QX_FILE_DIGEST_SIZE];
        qxFileGetMd5AndLen(&len, digest);
        broken = broken || len < 64 || len % 64 != 0 || len > static_cast<int32_t>(QX_FLASH_SIZE + 0x100)
            || std::any_of(digest + 16, digest + QX_FILE_DIGEST_SIZE, [](uint8_t b) { return b != 0; });
    }
    if (broken) {
        __builtin_trap();
    }
    return 0;
}
