// Loading a full-range firmware image (HEX parse, image, MD5) against the
// stock tools doing the same job: objcopy to a binary, then md5sum over it.
#include "evmLog.h"
#include "qxFile.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

extern char **environ;

namespace {

constexpr uint32_t BENCH_RECORD_BYTES = 32;

// The scratch directory, as plain characters so that the exit handler that
// removes it never sees a destroyed string.
char benchHexDir[] = "/tmp/benchHexLoad.XXXXXX";

struct benchHexFiles {
    std::string dir;
    std::string hex;
    std::string bin;
};

std::string __benchHexRecord(uint8_t type, uint16_t address, const uint8_t *data, size_t count)
{
    char text[16];
    uint32_t sum = static_cast<uint32_t>(count) + (address >> 8) + (address & 0xFF) + type;
    snprintf(text, sizeof text, ":%02X%04X%02X", static_cast<unsigned>(count), address, type);
    std::string row = text;
    for (size_t i = 0; i < count; ++i) {
        snprintf(text, sizeof text, "%02X", data[i]);
        row += text;
        sum += data[i];
    }
    snprintf(text, sizeof text, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
    return row + text;
}

// A random image over the whole flash range as HEX with 32-byte records,
// written once per process.
const benchHexFiles &__benchHexSetUp()
{
    static benchHexFiles files = [] {
        benchHexFiles f;
        if (mkdtemp(benchHexDir) == nullptr) {
            perror("mkdtemp");
            exit(1);
        }
        atexit([] { std::filesystem::remove_all(benchHexDir); });
        f.dir = benchHexDir;
        f.hex = f.dir + "/image.hex";
        f.bin = f.dir + "/image.bin";
        std::mt19937 gen(0x1D010000);
        std::vector<uint8_t> image(QX_FLASH_SIZE);
        for (auto &b : image) {
            b = static_cast<uint8_t>(gen());
        }
        std::string text;
        uint32_t segment = 0xFFFFFFFF;
        for (uint32_t offset = 0; offset < QX_FLASH_SIZE; offset += BENCH_RECORD_BYTES) {
            const uint32_t address = QX_FLASH_START + offset;
            if (address >> 16 != segment) {
                segment = address >> 16;
                const uint8_t upper[2] = {static_cast<uint8_t>(segment >> 8), static_cast<uint8_t>(segment)};
                text += __benchHexRecord(4, 0, upper, 2);
            }
            text += __benchHexRecord(0, static_cast<uint16_t>(address), &image[offset], BENCH_RECORD_BYTES);
        }
        text += ":00000001FF\n";
        std::ofstream(f.hex, std::ios::binary) << text;
        return f;
    }();
    return files;
}

void __benchQuietLog(int, const char *, int, const char *) {}

// Runs a program with its standard output on /dev/null and waits for it.
bool __benchRun(const std::vector<const char *> &argv)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    std::vector<char *> args;
    for (const char *a : argv) {
        args.push_back(const_cast<char *>(a));
    }
    args.push_back(nullptr);
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        return false;
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void benchQxFileInit(benchmark::State &state)
{
    const auto &files = __benchHexSetUp();
    // The digest line goes to standard output on every load and the trace to
    // the log: both are sent nowhere here, as the tools' output is.
    evmLogSetSink(__benchQuietLog);
    fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    for (auto _ : state) {
        qxFileReset();
        const int32_t result = qxFileInit(files.hex.c_str());
        if (result != 0) {
            state.SkipWithError("qxFileInit failed");
            break;
        }
    }
    fflush(stdout);
    dup2(savedStdout, STDOUT_FILENO);
    close(savedStdout);
    close(devNull);
    evmLogSetSink(nullptr);
    int32_t len = 0;
    uint8_t digest[QX_FILE_DIGEST_SIZE];
    qxFileGetMd5AndLen(&len, digest);
    state.counters["dataLen"] = len;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(std::filesystem::file_size(files.hex)));
}
BENCHMARK(benchQxFileInit)->UseRealTime()->Unit(benchmark::kMillisecond);

void benchObjcopyMd5sum(benchmark::State &state)
{
    const auto &files = __benchHexSetUp();
    for (auto _ : state) {
        if (!__benchRun({"objcopy", "-I", "ihex", "-O", "binary", files.hex.c_str(), files.bin.c_str()}) ||
            !__benchRun({"md5sum", files.bin.c_str()})) {
            state.SkipWithError("objcopy or md5sum failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(std::filesystem::file_size(files.hex)));
}
BENCHMARK(benchObjcopyMd5sum)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
