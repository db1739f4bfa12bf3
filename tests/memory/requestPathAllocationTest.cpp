// Serving makes no heap allocation once warm: a counting allocator around the request loop, with host-held,
// relayed and unknown codes, on the in-process simulated appliance.
#include "main.h"
#include "simFixture.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct {
    std::atomic<bool> armed = false;
    std::atomic<int> paused = 0; // inside the simulated appliance, whose own bookkeeping is not the service's
    std::atomic<size_t> allocations = 0;
} countingPrivateMembers;

auto &counting = countingPrivateMembers;

void __countAllocation()
{
    if (counting.armed && counting.paused == 0) {
        ++counting.allocations;
    }
}

} // namespace

// Every C and C++ allocation goes through malloc, calloc or realloc (operator new calls malloc); a sanitizer
// brings its own allocator, which calls this hook on each allocation instead.
extern "C" {
#ifdef __SANITIZE_ADDRESS__
void __sanitizer_malloc_hook(const volatile void *, size_t) { __countAllocation(); }
#else
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *malloc(size_t n)
{
    __countAllocation();
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size)
{
    __countAllocation();
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n)
{
    __countAllocation();
    return __libc_realloc(p, n);
}
#endif
}

namespace {

platformSysOps simulated;

// Each seam call into the simulated appliance runs with counting paused.
template <auto MEMBER> struct pausedCall;
template <typename R, typename... A, R (*platformSysOps::*MEMBER)(A...)> struct pausedCall<MEMBER> {
    static R call(A... args)
    {
        ++counting.paused;
        R r = (simulated.*MEMBER)(args...);
        --counting.paused;
        return r;
    }
};
template <auto... MEMBERS> void pauseIn()
{
    ((platformSys.*MEMBERS = pausedCall<MEMBERS>::call), ...);
}

// The device link open on the simulated appliance; the log lines go out as in service (standard error, here
// into nothing, and syslog).
class requestPathAllocation : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        evmLogSetSink(nullptr);
        simulated = platformSys;
        pauseIn<&platformSysOps::open, &platformSysOps::close, &platformSysOps::ioctl, &platformSysOps::usleep,
                &platformSysOps::system, &platformSysOps::select, &platformSysOps::msSince1970>();
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        requestRead_.reset(fds[0]);
        requestWrite_.reset(fds[1]);
        mainLoopSetRequestFd(requestRead_.get());
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
        reply_ = dir_ + "/reply";
        ASSERT_EQ(mkfifo(reply_.c_str(), 0600), 0);
        replyRead_.reset(open(reply_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        savedStderr_.reset(dup(STDERR_FILENO));
        dup2(uniqueFd(open("/dev/null", O_WRONLY | O_CLOEXEC)).get(), STDERR_FILENO);
    }
    void TearDown() override
    {
        counting.armed = false;
        dup2(savedStderr_.get(), STDERR_FILENO);
        simLinkTest::TearDown();
        unlink(reply_.c_str());
        rmdir(dir_.c_str());
    }
    // One request through the loop: true when its reply came back with `code`.
    bool serve(uint8_t code)
    {
        usbDaemonRequest r = {};
        memcpy(r.clientFifo, reply_.c_str(), reply_.size() + 1);
        r.cmd[0] = code;
        r.cmd[3] = 3; // a valid bay, slot 3
        if (write(requestWrite_.get(), &r, sizeof r) != ssize_t(sizeof r)) {
            return false;
        }
        mainLoopPass();
        usbDaemonRequest back = {};
        return read(replyRead_.get(), &back, sizeof back) == ssize_t(sizeof back) && back.cmd[0] == code;
    }

    uniqueFd requestRead_, requestWrite_, replyRead_, savedStderr_;
    std::string dir_ = "/tmp/requestPathAllocation.XXXXXX";
    std::string reply_;
};

void *volatile allocationProbe;

TEST_F(requestPathAllocation, servingHostHeldRelayedAndUnknownCodesAllocatesNothingOnceWarm)
{
    // Relayed: GET_INFO, SET_LEDS, GET_FLASH_VAL; host-held: bay shut-down, resume, indicator, daemon detect
    // set and get; no handler: 200, 64.
    const uint8_t codes[] = {QX_HID_CMD_GET_INFO,
                             QX_HID_CMD_SET_LEDS,
                             QX_HID_CMD_GET_FLASH_VAL,
                             QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN,
                             QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                             QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND,
                             QX_HID_CMD_SET_XML_DAEMON_DETECT,
                             QX_HID_CMD_GET_XML_DAEMON_DETECT,
                             200,
                             64};
    for (uint8_t code : codes) { // warm: the first syslog call opens its socket
        ASSERT_TRUE(serve(code)) << int(code);
    }
    counting.allocations = 0;
    counting.armed = true;
    size_t served = 0;
    for (int round = 0; round < 20; ++round) {
        for (uint8_t code : codes) {
            served += serve(code) ? 1 : 0;
        }
    }
    counting.armed = false;
    EXPECT_EQ(served, 20 * std::size(codes));
    EXPECT_EQ(counting.allocations, 0u);

    // The counter itself sees an allocation, C++ and C alike.
    counting.armed = true;
    allocationProbe = new std::array<uint8_t, 64>(); // through a volatile, so neither pair can be left out
    delete static_cast<std::array<uint8_t, 64> *>(allocationProbe);
    allocationProbe = malloc(64);
    free(allocationProbe);
    counting.armed = false;
    EXPECT_EQ(counting.allocations, 2u);
}

} // namespace
