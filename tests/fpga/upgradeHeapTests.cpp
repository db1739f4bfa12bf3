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

namespace {

struct {
    bool counting = false;
    int inSeam = 0; // the model may allocate
    size_t allocations = 0;
    platformSysOps model = {};
} heapCount;

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
// operator new takes its memory from malloc: one hook counts both.
extern "C" void *malloc(size_t n)
{
    heapCount.allocations += heapCount.counting && heapCount.inSeam == 0 ? 1 : 0;
    return __libc_malloc(n);
}
#endif

TEST_F(simLinkTest, upgradesMakeNoHeapAllocation)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer owns malloc";
#endif
    const std::string fpgaFile = testing::TempDir() + "heap-fpga-" + std::to_string(getpid());
    std::ofstream(fpgaFile, std::ios::binary).write(std::vector<char>(1 << 20, 0x5A).data(), 1 << 20);
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
    for (auto [code, path] : {std::pair{QX_HID_CMD_FPGA_UPGRADE, fpgaFile},
                              std::pair{QX_HID_CMD_CPLD_UPGRADE, std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc"}}) {
        qxUsbBlock cmd{};
        qxUsbBlock resp{};
        cmd[QX_REPORT_CODE] = code;
        std::memcpy(&cmd[3], path.c_str(), path.size() + 1);
        heapCount.allocations = 0;
        heapCount.counting = true;
        const int32_t rc = usbMgmtCmd(cmd, resp);
        heapCount.counting = false;
        EXPECT_EQ(rc, 0) << int(code);
        EXPECT_EQ(heapCount.allocations, 0u) << int(code);
    }
    platformSys = heapCount.model;
    unlink(fpgaFile.c_str());
}
