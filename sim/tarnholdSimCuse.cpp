// tarnhold-sim-cuse: the simulated appliance behind a real character device.
// The model's picdev node is served as /dev/corvanta_hid_backdoor through
// CUSE, for a real kernel and a real service manager; the node follows a real
// (stand-in) picdev module: it exists only while /sys/module/picdev does,
// and while the model offers it (not while the board is off the bus).
// One thread: the CUSE session, the control connections and the module
// check share one poll loop, so the model is never called concurrently.
#define FUSE_USE_VERSION 35

#include "tarnholdSim.h"

#include <cuse_lowlevel.h>
#include <fuse_lowlevel.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *TARNHOLD_SIM_CUSE = "tarnhold-sim-cuse";
constexpr int TARNHOLD_SIM_CUSE_EXIT_USAGE = 2;
// How often the module's presence and the model's node are looked at, and how
// long a stop waits.
constexpr int TARNHOLD_SIM_CUSE_POLL_MS = 50;
constexpr const char *TARNHOLD_SIM_CUSE_MODULE = "picdev"; // the model's own name for its driver
constexpr unsigned TARNHOLD_SIM_CUSE_MINORS = 1U << 20; // MINORBITS
constexpr std::array<int, 3> TARNHOLD_SIM_CUSE_STOP_SIGNALS = {SIGTERM, SIGINT, SIGHUP};

struct tarnholdSimCuseConnection {
    int fd;
    std::string pending;
};

struct {
    tarnholdSimModelOptions model;
    std::string module = TARNHOLD_SIM_CUSE_MODULE;
    std::string readyFile;
    bool renumber = false;

    fuse_session *session = nullptr;
    fuse_buf buffer{};
    std::string devName = std::string("DEVNAME=") + TARNHOLD_SIM_NODE_NAME;
    unsigned served = 0;     // sessions started so far
    bool wantNode = false;   // what the model says: the driver offers its node
    bool moduleLoaded = true; // /sys/module/NAME as last seen
    std::vector<int> openHandles;
    int listenFd = -1;
    std::vector<tarnholdSimCuseConnection> connections;
    volatile sig_atomic_t stop = 0;
    bool failed = false;  // the node could not be served
    bool nodeUp = false;  // the current session's node exists
    bool notified = false; // the service manager was told it is ready
} tarnholdSimCusePrivateMembers;

auto &cuse = tarnholdSimCusePrivateMembers;

void __tarnholdSimCuseUsage(FILE *out)
{
    std::fprintf(out,
                 "Usage: tarnhold-sim-cuse [OPTION...]\n"
                 "Serves the simulated appliance's device node /dev/%s as a real\n"
                 "character device through CUSE (needs root and /dev/cuse: modprobe cuse), while\n"
                 "the kernel module NAME is loaded (/sys/module/NAME exists): when it is\n"
                 "unloaded the node goes and the model sees the driver unloaded; when it is\n"
                 "loaded again the node comes back and the model sees the driver loaded.\n"
                 "While the board is off the bus (fault off-bus) the node is removed in the\n"
                 "same way, and served again within %d ms of its return. What the driver\n"
                 "reads by address it reads in the caller's memory. Runs until SIGTERM,\n"
                 "SIGINT or SIGHUP; status %d: set-up failed. Under systemd (Type=notify) it\n"
                 "reports ready once the node is served.\n"
                 "\n"
                 "%s"
                 "  --module NAME       the kernel module the node follows (default picdev)\n"
                 "  --renumber          each time the node comes back it carries another device\n"
                 "                      number, one it has not had before (minor 0, 1, 2, ...)\n"
                 "  --ready-file PATH   while the node is served, PATH holds its MAJOR:MINOR\n"
                 "  --help              this text\n"
                 "\n%s%s",
                 TARNHOLD_SIM_NODE_NAME, TARNHOLD_SIM_CUSE_POLL_MS, TARNHOLD_SIM_CUSE_EXIT_USAGE,
                 tarnholdSimModelOptionUsage(),
                 tarnholdSimControlUsage(), tarnholdSimUpgradeUsage());
}

bool __tarnholdSimCuseParse(int argc, char **argv)
{
    enum { MODULE = 1, RENUMBER, READY_FILE, HELP };
    std::vector<option> longOptions(TARNHOLD_SIM_MODEL_OPTIONS.begin(), TARNHOLD_SIM_MODEL_OPTIONS.end());
    longOptions.insert(longOptions.end(), {
                                              {"module", required_argument, nullptr, MODULE},
                                              {"renumber", no_argument, nullptr, RENUMBER},
                                              {"ready-file", required_argument, nullptr, READY_FILE},
                                              {"help", no_argument, nullptr, HELP},
                                              {nullptr, 0, nullptr, 0},
                                          });
    int opt;
    while ((opt = getopt_long(argc, argv, "", longOptions.data(), nullptr)) != -1) {
        if (tarnholdSimModelOption(opt, optarg, cuse.model)) {
            continue;
        }
        switch (opt) {
        case MODULE: cuse.module = optarg; break;
        case RENUMBER: cuse.renumber = true; break;
        case READY_FILE: cuse.readyFile = optarg; break;
        case HELP: __tarnholdSimCuseUsage(stdout); std::exit(0);
        default: __tarnholdSimCuseUsage(stderr); return false;
        }
    }
    if (optind < argc || cuse.module.empty() || cuse.module.find('/') != std::string::npos) {
        __tarnholdSimCuseUsage(stderr);
        return false;
    }
    return true;
}

// ---- Front end hooks (model lock held) ----------------------------------------

void __tarnholdSimCuseSweep() {} // CUSE tells every close (release)

// The session itself starts and ends in the loop, never inside a request.
void __tarnholdSimCuseSync()
{
    cuse.wantNode = simNodePresent();
}

// ---- The device's operations ---------------------------------------------------

bool __tarnholdSimCuseReadMem(void *ctx, uint64_t address, void *dst, size_t len)
{
    return tarnholdSimReadProcessMemory(static_cast<pid_t>(reinterpret_cast<intptr_t>(ctx)), address, dst, len);
}

void __tarnholdSimCuseOpen(fuse_req_t req, fuse_file_info *fi)
{
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    const int handle = simDriverOpenHandle();
    if (handle < 0) {
        fuse_reply_err(req, -handle);
        return;
    }
    cuse.openHandles.push_back(handle);
    fi->fh = static_cast<uint64_t>(handle);
    fi->nonseekable = 1;
    fuse_reply_open(req, fi);
}

void __tarnholdSimCuseClose(int handle)
{
    auto it = std::find(cuse.openHandles.begin(), cuse.openHandles.end(), handle);
    if (it != cuse.openHandles.end()) {
        cuse.openHandles.erase(it);
        simDriverCloseHandle(handle);
    }
}

void __tarnholdSimCuseRelease(fuse_req_t req, fuse_file_info *fi)
{
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        __tarnholdSimCuseClose(static_cast<int>(fi->fh));
        __tarnholdSimCuseSync();
    }
    fuse_reply_err(req, 0);
}

// Unrestricted ioctls arrive first without data: the answer names the
// caller's 88-byte block, and the kernel calls again with its bytes and
// copies the block back after the reply. Every request of the driver that
// takes an argument takes the block (the model refuses the others).
void __tarnholdSimCuseIoctl(fuse_req_t req, int cmd, void *arg, fuse_file_info *fi, unsigned int,
                            const void *inBuf, size_t inSize, size_t)
{
    if (arg != nullptr && inSize < sizeof(picHidIoctlArg)) {
        const iovec block = {arg, sizeof(picHidIoctlArg)};
        fuse_reply_ioctl_retry(req, &block, 1, &block, 1);
        return;
    }
    picHidIoctlArg local{};
    if (arg != nullptr) {
        std::memcpy(&local, inBuf, sizeof(local));
    }
    const pid_t caller = fuse_req_ctx(req)->pid;
    const simMemReader mem = {&__tarnholdSimCuseReadMem, reinterpret_cast<void *>(static_cast<intptr_t>(caller))};
    int rc = 0;
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        rc = simDriverIoctlHandle(static_cast<int>(fi->fh), static_cast<uint32_t>(cmd),
                                  arg != nullptr ? &local : nullptr, mem);
        __tarnholdSimCuseSync();
    }
    if (rc != 0) {
        fuse_reply_err(req, -rc);
    } else {
        fuse_reply_ioctl(req, 0, arg != nullptr ? &local : nullptr, arg != nullptr ? sizeof(local) : 0);
    }
}

// The node exists now (the kernel made it while taking the init reply).
void __tarnholdSimCuseInitDone(void *)
{
    cuse.nodeUp = true;
    const std::string node = QX_USB_DEVICE_PATH;
    struct stat st;
    if (::stat(node.c_str(), &st) != 0) {
        std::fprintf(stderr, "%s: %s is served but does not show: %s\n", TARNHOLD_SIM_CUSE, node.c_str(),
                     std::strerror(errno));
        return;
    }
    const std::string number = std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
    std::fprintf(stderr, "%s: serving %s as %s\n", TARNHOLD_SIM_CUSE, node.c_str(), number.c_str());
    if (cuse.readyFile.empty()) {
        return;
    }
    const std::string tmp = cuse.readyFile + ".new";
    FILE *out = std::fopen(tmp.c_str(), "we");
    const bool ok = out != nullptr && std::fprintf(out, "%s\n", number.c_str()) > 0;
    if ((out != nullptr && std::fclose(out) != 0) || !ok || ::rename(tmp.c_str(), cuse.readyFile.c_str()) != 0) {
        std::fprintf(stderr, "%s: cannot write %s\n", TARNHOLD_SIM_CUSE, cuse.readyFile.c_str());
    }
}

const cuse_lowlevel_ops TARNHOLD_SIM_CUSE_OPS = {
    .init = nullptr,
    .init_done = &__tarnholdSimCuseInitDone,
    .destroy = nullptr,
    .open = &__tarnholdSimCuseOpen,
    .read = nullptr,
    .write = nullptr,
    .flush = nullptr,
    .release = &__tarnholdSimCuseRelease,
    .fsync = nullptr,
    .ioctl = &__tarnholdSimCuseIoctl,
    .poll = nullptr,
};

// ---- The session: the node comes and goes with it -----------------------------

bool __tarnholdSimCuseStart()
{
    const char *devInfo[] = {cuse.devName.c_str()};
    cuse_info info{};
    // A new minor under a dynamic major each time it comes back, as a
    // reloaded driver's node may: never a number it had before, so what was
    // allowed by the number it had at some moment does not match again.
    info.dev_major = 0;
    info.dev_minor = cuse.renumber ? cuse.served % TARNHOLD_SIM_CUSE_MINORS : 0;
    info.dev_info_argc = 1;
    info.dev_info_argv = devInfo;
    info.flags = CUSE_UNRESTRICTED_IOCTL;
    // Foreground and one thread: the requests are read in this loop.
    std::array<char *, 4> args = {const_cast<char *>(TARNHOLD_SIM_CUSE), const_cast<char *>("-f"),
                                  const_cast<char *>("-s"), nullptr};
    int multithreaded = 0;
    cuse.session = cuse_lowlevel_setup(3, args.data(), &info, &TARNHOLD_SIM_CUSE_OPS, &multithreaded, nullptr);
    if (cuse.session == nullptr) {
        return false;
    }
    ++cuse.served;
    return true;
}

void __tarnholdSimCuseEnd()
{
    if (cuse.session == nullptr) {
        return;
    }
    // Closing the channel unregisters the device: the node goes, and every
    // descriptor still open on it fails from now on.
    cuse_lowlevel_teardown(cuse.session);
    cuse.session = nullptr;
    cuse.nodeUp = false;
    std::free(cuse.buffer.mem);
    cuse.buffer = {};
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        while (!cuse.openHandles.empty()) {
            __tarnholdSimCuseClose(cuse.openHandles.back());
        }
    }
    if (!cuse.readyFile.empty()) {
        ::unlink(cuse.readyFile.c_str());
    }
    std::fprintf(stderr, "%s: %s removed\n", TARNHOLD_SIM_CUSE, QX_USB_DEVICE_PATH);
}

// One request from the kernel; false when the channel has gone.
bool __tarnholdSimCuseServeOne()
{
    const int res = fuse_session_receive_buf(cuse.session, &cuse.buffer);
    if (res == -EINTR || res == -EAGAIN) {
        return true;
    }
    if (res <= 0) {
        return false;
    }
    fuse_session_process_buf(cuse.session, &cuse.buffer);
    return !fuse_session_exited(cuse.session);
}

// Under systemd (Type=notify): ready once the node is served, or at once
// when the model offers none (module not loaded, no microcontroller).
void __tarnholdSimCuseNotifyReady()
{
    const char *path = std::getenv("NOTIFY_SOCKET");
    if (cuse.notified || (cuse.wantNode && !cuse.nodeUp)) {
        return;
    }
    cuse.notified = true;
    sockaddr_un addr{};
    std::string error;
    if (path == nullptr || !tarnholdSimControlSocketAddress(path, addr, error)) {
        return;
    }
    if (addr.sun_path[0] == '@') {
        addr.sun_path[0] = '\0'; // an abstract socket
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    constexpr std::string_view READY = "READY=1";
    if (fd < 0 || ::sendto(fd, READY.data(), READY.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&addr),
                           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path))) < 0) {
        std::fprintf(stderr, "%s: cannot notify %s: %s\n", TARNHOLD_SIM_CUSE, path, std::strerror(errno));
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

// ---- The module and the control connections -----------------------------------

// The model sees the real module come and go as tarnhold-sim's module
// commands make it see them.
void __tarnholdSimCuseFollowModule()
{
    struct stat st;
    const bool loaded = ::stat(("/sys/module/" + cuse.module).c_str(), &st) == 0;
    if (loaded == cuse.moduleLoaded) {
        return;
    }
    cuse.moduleLoaded = loaded;
    std::string out;
    std::string error;
    const std::string command = std::string(loaded ? "modprobe " : "rmmod ") + TARNHOLD_SIM_CUSE_MODULE;
    if (!tarnholdSimControlRun(command, out, error)) {
        std::fprintf(stderr, "%s: %s: %s\n", TARNHOLD_SIM_CUSE, command.c_str(), error.c_str());
    }
}

// The model's node as its clock has it now: a board off the bus comes back
// when its time is up, with nobody asking. The loop then serves the node
// again (or ends the session when it went), as for the module.
void __tarnholdSimCuseFollowModel()
{
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    __tarnholdSimCuseSync();
}

void __tarnholdSimCuseConnectionReadable(size_t index)
{
    tarnholdSimCuseConnection &c = cuse.connections[index];
    char data[1024];
    const ssize_t n = ::read(c.fd, data, sizeof(data));
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    bool keep = n > 0;
    if (keep) {
        std::string replies;
        // A line too long is answered, then the connection is dropped.
        keep = tarnholdSimControlFeed(c.pending, std::string_view(data, static_cast<size_t>(n)), replies);
        keep = tarnholdSimControlWriteAll(c.fd, replies) && keep;
    }
    if (!keep) {
        ::close(c.fd);
        c.fd = -1;
    }
}

void __tarnholdSimCuseStop(int)
{
    cuse.stop = 1;
}

void __tarnholdSimCuseLoop()
{
    std::vector<pollfd> fds;
    while (cuse.stop == 0) {
        if (cuse.wantNode && cuse.session == nullptr && !__tarnholdSimCuseStart()) {
            std::fprintf(stderr, "%s: cannot serve %s (is /dev/cuse there? modprobe cuse)\n", TARNHOLD_SIM_CUSE,
                         QX_USB_DEVICE_PATH);
            cuse.failed = true;
            break;
        }
        if (!cuse.wantNode && cuse.session != nullptr) {
            __tarnholdSimCuseEnd();
        }
        __tarnholdSimCuseNotifyReady();
        fds.clear();
        fds.push_back({cuse.session != nullptr ? fuse_session_fd(cuse.session) : -1, POLLIN, 0});
        fds.push_back({cuse.listenFd, POLLIN, 0});
        for (const tarnholdSimCuseConnection &c : cuse.connections) {
            fds.push_back({c.fd, POLLIN, 0});
        }
        const int ready = ::poll(fds.data(), fds.size(), TARNHOLD_SIM_CUSE_POLL_MS);
        if (ready < 0 && errno != EINTR) {
            std::fprintf(stderr, "%s: poll: %s\n", TARNHOLD_SIM_CUSE, std::strerror(errno));
            break;
        }
        if (ready > 0 && fds[0].revents != 0 && !__tarnholdSimCuseServeOne()) {
            // The kernel ended the channel: the node is gone until the session starts again.
            __tarnholdSimCuseEnd();
        }
        if (ready > 0 && (fds[1].revents & POLLIN) != 0) {
            const int conn = ::accept4(cuse.listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (conn >= 0) {
                cuse.connections.push_back({conn, std::string()});
            }
        }
        for (size_t i = 2; ready > 0 && i < fds.size(); ++i) {
            if (fds[i].revents != 0) {
                __tarnholdSimCuseConnectionReadable(i - 2);
            }
        }
        std::erase_if(cuse.connections, [](const tarnholdSimCuseConnection &c) { return c.fd < 0; });
        __tarnholdSimCuseFollowModule();
        __tarnholdSimCuseFollowModel();
        __tarnholdSimCuseNotifyReady();
    }
}

} // namespace

int main(int argc, char **argv)
{
    tarnholdSimControlSetFrontEnd({&__tarnholdSimCuseSweep, &__tarnholdSimCuseSync, {nullptr, nullptr}});
    if (!__tarnholdSimCuseParse(argc, argv) || !tarnholdSimModelSetUp(TARNHOLD_SIM_CUSE, cuse.model)) {
        return TARNHOLD_SIM_CUSE_EXIT_USAGE;
    }
    // The module as it stands now: absent, the model sees the driver unloaded.
    __tarnholdSimCuseFollowModule();
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        simClearEvents();
        __tarnholdSimCuseSync();
    }
    std::string error;
    if (!cuse.model.control.empty() &&
        (cuse.listenFd = tarnholdSimControlListenSocket(cuse.model.control, error)) < 0) {
        std::fprintf(stderr, "%s: %s\n", TARNHOLD_SIM_CUSE, error.c_str());
        return TARNHOLD_SIM_CUSE_EXIT_USAGE;
    }
    // Set before any session: libfuse then leaves these signals to us, and
    // a stop ends the loop (state saved) whether the node is served or not.
    struct sigaction action {};
    action.sa_handler = &__tarnholdSimCuseStop;
    sigemptyset(&action.sa_mask);
    for (int sig : TARNHOLD_SIM_CUSE_STOP_SIGNALS) {
        sigaction(sig, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);

    __tarnholdSimCuseLoop();

    __tarnholdSimCuseEnd();
    for (const tarnholdSimCuseConnection &c : cuse.connections) {
        ::close(c.fd);
    }
    if (cuse.listenFd >= 0) {
        ::close(cuse.listenFd);
        ::unlink(cuse.model.control.c_str());
    }
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    const bool saved = tarnholdSimModelFinish(TARNHOLD_SIM_CUSE, cuse.model);
    return saved && !cuse.failed ? 0 : 1;
}
