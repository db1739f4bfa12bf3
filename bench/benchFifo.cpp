// Requests per second through the request FIFO: the real tarnhold binary
// against a minimal echo server that does the same per-reply open, write and
// close, both in one run and one private mount namespace. Code 200 is
// answered without the device, so this measures the loop and the FIFOs.
// Both servers run inside tarnhold-sim (the daemon's start-up needs the
// appliance), so both pay the same for umockdev's wrapped system calls.
//
//     benchFifo [google benchmark options]
//     benchFifo --echo-server        (what it runs itself inside tarnhold-sim)
//
// Prints both rates and their ratio (daemon / echo) for single round trips
// and for batches of 32 records in flight. With TARNHOLD_RECORD set, the
// daemon records every exchange (the echo server records nothing): the ratio
// is then what recording leaves of the FIFO's rate.
#include "daemonHarness.h"

#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *BENCH_ECHO_FIFO = "/tmp/bench-echo-fifo";
constexpr const char *BENCH_REPLY_FIFO = "/tmp/bench-reply-fifo";
constexpr const char *BENCH_IMAGE = "/tmp/bench-app.hex";
constexpr const char *BENCH_ECHO_OPTION = "--echo-server";
constexpr int BENCH_DAEMON = 0;
constexpr int BENCH_ECHO = 1;
constexpr int BENCH_WAIT_MS = 10000;

struct {
    uniqueFd requestFd[2]; // tarnhold's FIFO, the echo server's FIFO
    uniqueFd replyFd;
    bool failed = false;
} benchFifoPrivateMembers;

// The echo server: the daemon's loop without dispatch or checks.
[[noreturn]] void __benchEchoServe()
{
    uniqueFd in(open(BENCH_ECHO_FIFO, O_RDONLY | O_NONBLOCK));
    uniqueFd dummy(open(BENCH_ECHO_FIFO, O_WRONLY));
    if (!in.valid() || !dummy.valid()) {
        _exit(1);
    }
    usbDaemonRequest record;
    for (;;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(in.get(), &readSet);
        select(in.get() + 1, &readSet, nullptr, nullptr, nullptr);
        if (read(in.get(), &record, sizeof record) != ssize_t(sizeof record)) {
            continue;
        }
        record.result = USB_DAEMON_RESULT_UNKNOWN_FUNCTION;
        int fd = open(record.clientFifo, O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            ssize_t ignored = write(fd, &record, sizeof record);
            (void)ignored;
            close(fd);
        }
    }
}

bool __benchReadReply()
{
    auto &m = benchFifoPrivateMembers;
    usbDaemonRequest reply;
    pollfd p = {.fd = m.replyFd.get(), .events = POLLIN, .revents = 0};
    for (;;) {
        ssize_t n = read(m.replyFd.get(), &reply, sizeof reply);
        if (n == ssize_t(sizeof reply)) {
            return reply.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION;
        }
        if (n > 0 || poll(&p, 1, BENCH_WAIT_MS) <= 0) {
            return false;
        }
    }
}

void benchRequests(benchmark::State &state)
{
    auto &m = benchFifoPrivateMembers;
    int server = static_cast<int>(state.range(0));
    int64_t inFlight = state.range(1);
    usbDaemonRequest record = {};
    strncpy(record.clientFifo, BENCH_REPLY_FIFO, sizeof record.clientFifo - 1);
    record.cmd[0] = 200;
    for (auto _ : state) {
        for (int64_t i = 0; i < inFlight; ++i) {
            if (write(m.requestFd[server].get(), &record, sizeof record) != ssize_t(sizeof record)) {
                state.SkipWithError("request write failed");
                m.failed = true;
                return;
            }
        }
        for (int64_t i = 0; i < inFlight; ++i) {
            if (!__benchReadReply()) {
                state.SkipWithError("no reply");
                m.failed = true;
                return;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * inFlight);
    state.SetLabel(server == BENCH_DAEMON ? "tarnhold" : "echo");
}
BENCHMARK(benchRequests)->ArgNames({"server", "inFlight"})->ArgsProduct({{BENCH_DAEMON, BENCH_ECHO}, {1, 32}})->UseRealTime();

// Keeps each benchmark's rate (the median when repeated) so that main can
// print the ratios.
class benchRateReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const auto &run : runs) {
            auto it = run.counters.find("items_per_second");
            if (it == run.counters.end()) {
                continue;
            }
            if (run.run_type == Run::RT_Iteration) {
                rates[run.run_name.str()] = it->second.value;
            } else if (run.aggregate_name == "median") {
                medians[run.run_name.str()] = it->second.value;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double rate(const std::string &name) const
    {
        auto m = medians.find(name);
        if (m != medians.end()) {
            return m->second;
        }
        auto r = rates.find(name);
        return r != rates.end() ? r->second : 0;
    }
    std::map<std::string, double> rates;
    std::map<std::string, double> medians;
};

// Opens the write end of a request FIFO once its server reads it.
uniqueFd __benchOpenRequest(const char *path)
{
    for (int i = 0; i < 10000; ++i) {
        uniqueFd fd(open(path, O_WRONLY | O_NONBLOCK));
        if (fd.valid()) {
            return fd;
        }
        usleep(1000);
    }
    return uniqueFd();
}

// One round trip before measuring: the daemon serves only after device start-up.
bool __benchServed(int server)
{
    auto &m = benchFifoPrivateMembers;
    usbDaemonRequest record = {};
    strncpy(record.clientFifo, BENCH_REPLY_FIFO, sizeof record.clientFifo - 1);
    record.cmd[0] = 200;
    return write(m.requestFd[server].get(), &record, sizeof record) == ssize_t(sizeof record) && __benchReadReply();
}

bool __benchSetUp(daemonHarness &daemon, daemonHarness &echo)
{
    auto &m = benchFifoPrivateMembers;
    std::string why = daemonHarnessIsolate();
    if (!why.empty()) {
        fprintf(stderr, "benchFifo: %s (needs root)\n", why.c_str());
        return false;
    }
    std::array<char, 4096> self = {};
    if (!daemonHarnessWriteImage(BENCH_IMAGE) || readlink("/proc/self/exe", self.data(), self.size() - 1) <= 0 ||
        mkfifo(BENCH_ECHO_FIFO, 0666) != 0 || mkfifo(BENCH_REPLY_FIFO, 0600) != 0) {
        return false;
    }
    m.replyFd.reset(open(BENCH_REPLY_FIFO, O_RDONLY | O_NONBLOCK));
    daemonHarnessCommand echoCommand = daemonHarnessOnAppliance(BENCH_IMAGE, {BENCH_ECHO_OPTION});
    echoCommand.binary = self.data();
    if (!daemon.start(daemonHarnessOnAppliance(BENCH_IMAGE, {"--file", BENCH_IMAGE})) || !echo.start(echoCommand)) {
        return false;
    }
    m.requestFd[BENCH_DAEMON] = __benchOpenRequest(USB_DAEMON_FIFO);
    m.requestFd[BENCH_ECHO] = __benchOpenRequest(BENCH_ECHO_FIFO);
    if (!m.replyFd.valid() || !m.requestFd[BENCH_DAEMON].valid() || !m.requestFd[BENCH_ECHO].valid() ||
        !__benchServed(BENCH_DAEMON) || !__benchServed(BENCH_ECHO)) {
        fprintf(stderr, "benchFifo: a server did not answer:\n%s", daemon.stderrText().c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    auto &m = benchFifoPrivateMembers;
    if (argc == 2 && strcmp(argv[1], BENCH_ECHO_OPTION) == 0) {
        __benchEchoServe();
    }
    // The machine may be shared: by default repeat, interleave and compare
    // medians. Flags given on the command line come later and win.
    std::vector<char *> args = {argv[0], const_cast<char *>("--benchmark_repetitions=5"),
                                const_cast<char *>("--benchmark_enable_random_interleaving=true"),
                                const_cast<char *>("--benchmark_min_time=0.5")};
    args.insert(args.end(), argv + 1, argv + argc);
    int argCount = static_cast<int>(args.size());
    benchmark::Initialize(&argCount, args.data());
    daemonHarness daemon;
    daemonHarness echo;
    if (!__benchSetUp(daemon, echo)) {
        return 1;
    }
    benchRateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (m.failed) {
        return 1;
    }
    printf("\n");
    for (const char *flight : {"1", "32"}) {
        std::string tail = std::string("/inFlight:") + flight + "/real_time";
        double daemonRate = reporter.rate("benchRequests/server:0" + tail);
        double echoRate = reporter.rate("benchRequests/server:1" + tail);
        if (daemonRate > 0 && echoRate > 0) {
            printf("in flight %2s: tarnhold %.0f req/s, echo %.0f req/s, ratio %.3f (goal >= 0.9)\n", flight,
                   daemonRate, echoRate, daemonRate / echoRate);
        }
    }
    return 0;
}
