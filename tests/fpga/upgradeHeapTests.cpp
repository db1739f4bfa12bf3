// A whole FPGA and CPLD upgrade allocates nothing on the heap: every
// operator new and malloc made by the service's own code between the request
// and its result is counted; the simulated appliance's (inside the system
// call seam) and the log sink's are not.
#include "simFixture.h"
#include "usbMgmt.h"

#include <cstring>
#include <ctime>
#include <fstream>

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
extern "C" void __libc_free(void *);

namespace {

struct {
    bool counting = false;
    int inSeam = 0;
    size_t allocations = 0;
    platformSysOps model = {};
} heapCount;

void __heapCounted()
{
    if (heapCount.counting && heapCount.inSeam == 0) {
        ++heapCount.allocations;
    }
}

// Runs a seam call with counting held off: the model may allocate.
template <typename Fn, typename... Args> auto __heapInSeam(Fn fn, Args... args)
{
    ++heapCount.inSeam;
    auto rc = fn(args...);
    --heapCount.inSeam;
    return rc;
}

void __heapQuietLog(int, const char *, int, const char *) {}

} // namespace

#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *malloc(size_t n)
{
    __heapCounted();
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t size)
{
    __heapCounted();
    return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t n)
{
    __heapCounted();
    return __libc_realloc(p, n);
}
extern "C" void free(void *p)
{
    __libc_free(p);
}
void *operator new(size_t n)
{
    __heapCounted();
    void *p = __libc_malloc(n != 0 ? n : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}
void operator delete(void *p) noexcept
{
    __libc_free(p);
}
void operator delete(void *p, size_t) noexcept
{
    __libc_free(p);
}
#endif

TEST_F(simLinkTest, upgradesMakeNoHeapAllocation)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer owns malloc";
#endif
    const std::string fpgaFile = testing::TempDir() + "heap-fpga-" + std::to_string(getpid());
    std::vector<char> bytes(1 << 20, 0x5A);
    std::ofstream(fpgaFile, std::ios::binary).write(bytes.data(), std::ssize(bytes));
    const std::string cpldFile = std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc";
    const time_t now = 0;
    struct tm local = {};
    localtime_r(&now, &local); // the time zone is read once, before counting

    heapCount.model = platformSys;
    platformSys.ioctl = [](int fd, unsigned long r, void *a) { return __heapInSeam(heapCount.model.ioctl, fd, r, a); };
    platformSys.usleep = [](useconds_t us) { return __heapInSeam(heapCount.model.usleep, us); };
    platformSys.open = [](const char *p, int f, mode_t m) { return __heapInSeam(heapCount.model.open, p, f, m); };
    platformSys.read = [](int fd, void *b, size_t n) { return __heapInSeam(heapCount.model.read, fd, b, n); };
    platformSys.msSince1970 = [] { return __heapInSeam(heapCount.model.msSince1970); };
    evmLogSetSink(__heapQuietLog);

    size_t counted[2] = {};
    int32_t rc[2] = {};
    for (int i = 0; i < 2; ++i) {
        qxUsbBlock cmd{};
        qxUsbBlock resp{};
        cmd[QX_REPORT_CODE] = i == 0 ? QX_HID_CMD_FPGA_UPGRADE : QX_HID_CMD_CPLD_UPGRADE;
        const std::string &path = i == 0 ? fpgaFile : cpldFile;
        std::memcpy(&cmd[3], path.c_str(), path.size() + 1);
        heapCount.allocations = 0;
        heapCount.counting = true;
        rc[i] = usbMgmtCmd(cmd, resp);
        heapCount.counting = false;
        counted[i] = heapCount.allocations;
    }
    platformSys = heapCount.model;
    unlink(fpgaFile.c_str());
    EXPECT_EQ(rc[0], 0);
    EXPECT_EQ(rc[1], 0);
    EXPECT_EQ(counted[0], 0u) << "FPGA upgrade";
    EXPECT_EQ(counted[1], 0u) << "CPLD upgrade";
}
