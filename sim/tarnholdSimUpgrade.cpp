// tarnhold-sim's hold on the FPGA and CPLD paths: their faults and timings
// as --fault takes them, and the control commands that read back what the
// appliance holds (the FPGA's memory as a digest, the CPLD's image, the
// CPLD record in slot 9, the last file-transfer test).
#include "tarnholdSim.h"

#include "leBytes.h"
#include "simUpgrade.h"
#include "uniqueFd.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

struct tarnholdSimUpgradeFaultName {
    const char *name;
    simUpgradeFault fault;
};

constexpr std::array<tarnholdSimUpgradeFaultName, 11> TARNHOLD_SIM_UPGRADE_FAULTS = {{
    {"erase-never-confirmed", simUpgradeFault::ERASE_NEVER_CONFIRMED},
    {"capacity-never-free", simUpgradeFault::CAPACITY_NEVER_FREE},
    {"clean-up-state-2", simUpgradeFault::CLEANUP_STATE_2},
    {"record-write-unconfirmed", simUpgradeFault::RECORD_WRITE_UNCONFIRMED},
    {"read-back-other-crc", simUpgradeFault::READBACK_OTHER_CRC},
    {"run-never-completes", simUpgradeFault::RUN_NEVER_COMPLETES},
    {"transfer-unreadable", simUpgradeFault::TRANSFER_UNREADABLE},
    {"clean-up-status-1", simUpgradeFault::CLEANUP_STATUS_1},
    {"capacity-own-seq", simUpgradeFault::CAPACITY_OWN_SEQ},
    {"capacity-status-busy", simUpgradeFault::CAPACITY_STATUS_BUSY},
    {"read-back-other-size", simUpgradeFault::READBACK_OTHER_SIZE},
}};

struct tarnholdSimUpgradeTiming {
    const char *name;
    void (*set)(uint64_t us);
};

constexpr std::array<tarnholdSimUpgradeTiming, 3> TARNHOLD_SIM_UPGRADE_TIMINGS = {{
    {"fpga-erase-time", &simSetFpgaEraseTimeUs},
    {"cpld-run-time", &simSetCpldRunTimeUs},
    {"urb-busy", &simSetUrbBusyUs},
}};

bool __tarnholdSimUpgradeNumber(const std::string &text, long long min, long long &value)
{
    return tarnholdSimControlNumber(text, value) && value >= min;
}

// The bytes of the file at path, or false.
bool __tarnholdSimUpgradeReadFile(const std::string &path, std::vector<uint8_t> &bytes)
{
    const uniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return false;
    }
    bytes.clear();
    std::array<uint8_t, 65536> chunk;
    for (;;) {
        const ssize_t n = ::read(fd.get(), chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + n);
    }
}

std::string __tarnholdSimUpgradeMd5(std::span<const uint8_t> bytes)
{
    uint8_t md5[16] = {};
    unsigned int len = 0;
    EVP_Digest(bytes.data(), bytes.size(), md5, &len, EVP_md5(), nullptr);
    std::string text;
    char hex[3];
    for (unsigned int i = 0; i < len; ++i) {
        std::snprintf(hex, sizeof(hex), "%02x", md5[i]);
        text += hex;
    }
    return text;
}

// The image against a file: the file's bytes, then the erased 0xFF behind it.
bool __tarnholdSimUpgradeCompare(std::span<const uint8_t> image, const std::string &path, std::string &out,
                                 std::string &error)
{
    std::vector<uint8_t> file;
    if (!__tarnholdSimUpgradeReadFile(path, file)) {
        error = "cannot read " + path;
        return false;
    }
    if (file.size() > image.size()) {
        error = path + " is larger than the image";
        return false;
    }
    for (size_t i = 0; i < image.size(); ++i) {
        const uint8_t want = i < file.size() ? file[i] : 0xFF;
        if (image[i] != want) {
            error = "differs at byte " + std::to_string(i);
            return false;
        }
    }
    out = "equal\n";
    return true;
}

bool __tarnholdSimUpgradeDump(std::span<const uint8_t> image, const std::string &path, std::string &error)
{
    const uniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.valid() || ::write(fd.get(), image.data(), image.size()) != static_cast<ssize_t>(image.size())) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

std::string __tarnholdSimUpgradeSlot9()
{
    const simSlot s = simGetSlot(9);
    if (s.len == 0xFF) {
        return "slot9 erased\n";
    }
    const std::string stamp(reinterpret_cast<const char *>(s.data), std::min<size_t>(s.len, sizeof(s.data)));
    char line[200];
    std::snprintf(line, sizeof(line), "slot9 size=%u crc=0x%04x state=0x%08" PRIx32 " stamp='%s'\n", s.word0 & 0xFFFF,
                  s.word0 >> 16, s.word1, stamp.c_str());
    return line;
}

} // namespace

int tarnholdSimUpgradeFault(const std::vector<std::string> &f, std::string &error)
{
    long long value = -1;
    for (const auto &entry : TARNHOLD_SIM_UPGRADE_FAULTS) {
        if (f[0] != entry.name) {
            continue;
        }
        if (f.size() > 2 || (f.size() == 2 && !__tarnholdSimUpgradeNumber(f[1], -1, value))) {
            error = f[0] + "[:COUNT] expected";
            return 0;
        }
        simSetUpgradeFault(entry.fault, static_cast<int>(value));
        return 1;
    }
    for (const auto &entry : TARNHOLD_SIM_UPGRADE_TIMINGS) {
        if (f[0] != entry.name) {
            continue;
        }
        if (f.size() != 2 || !__tarnholdSimUpgradeNumber(f[1], 0, value)) {
            error = f[0] + ":MICROSECONDS expected";
            return 0;
        }
        entry.set(static_cast<uint64_t>(value));
        return 1;
    }
    if (f[0] == "upgrade-none" && f.size() == 1) {
        simSetUpgradeFault(simUpgradeFault::NONE, 0);
        return 1;
    }
    return -1;
}

int tarnholdSimUpgradeCommand(const std::vector<std::string> &words, std::string &out, std::string &error)
{
    const std::string &command = words[0];
    long long length = 0;
    if (command == "fpga-md5" && words.size() == 2) {
        if (!__tarnholdSimUpgradeNumber(words[1], 0, length) ||
            static_cast<unsigned long long>(length) > SIM_FPGA_MEMORY_SIZE) {
            error = "fpga-md5 LENGTH (at most 16777216) expected";
            return 0;
        }
        out = __tarnholdSimUpgradeMd5(simFpgaMemory().first(static_cast<size_t>(length))) + "\n";
        return 1;
    }
    if (command == "fpga-compare" && words.size() == 2) {
        return __tarnholdSimUpgradeCompare(simFpgaMemory(), words[1], out, error) ? 1 : 0;
    }
    if (command == "cpld-compare" && words.size() == 2) {
        return __tarnholdSimUpgradeCompare(simCpldImage(), words[1], out, error) ? 1 : 0;
    }
    if (command == "cpld-dump" && words.size() == 2) {
        return __tarnholdSimUpgradeDump(simCpldImage(), words[1], error) ? 1 : 0;
    }
    if (command == "slot9" && words.size() == 1) {
        out = __tarnholdSimUpgradeSlot9();
        return 1;
    }
    if (command == "upgrade-state" && words.size() == 1) {
        const simUpgradeState u = simGetUpgradeState();
        char line[240];
        std::snprintf(line, sizeof(line),
                      "fpga-set-up=%d fpga-erased=%d fpga-pages=%" PRIu32 " fpga-clean-ups=%" PRIu32
                      " cpld-set-up=%d cpld-erased=%d cpld-pages=%" PRIu32 " cpld-runs=%" PRIu32 "\n",
                      u.fpgaSetUp, u.fpgaErased, u.fpgaPages, u.fpgaCleanUps, u.cpldSetUp, u.cpldErased, u.cpldPages,
                      u.cpldRuns);
        out = line;
        return 1;
    }
    if (command == "file-transfer" && words.size() == 1) {
        const simFileTransfer &t = simLastFileTransfer();
        char line[120];
        std::snprintf(line, sizeof(line), "file-transfer done=%d read=%s len=%" PRIu32 " fnv=0x%08" PRIx32 "\n",
                      t.done, t.readOk ? "ok" : "failed", t.len, t.checksum);
        out = line;
        return 1;
    }
    return -1;
}

const char *tarnholdSimUpgradeUsage()
{
    return "FPGA and CPLD control commands:\n"
           "  fpga-md5 LENGTH                  MD5 of the first LENGTH bytes of the FPGA's memory\n"
           "  fpga-compare FILE                the FPGA's memory against FILE, then 0xFF\n"
           "  cpld-compare FILE                the CPLD's image against FILE, then 0xFF\n"
           "  cpld-dump FILE                   write the CPLD's image (51,200 bytes) to FILE\n"
           "  slot9                            the CPLD record: size, CRC, state word, time stamp\n"
           "  upgrade-state                    set-up, erase, pages, clean-ups and runs seen\n"
           "  file-transfer                    the last file-transfer test: length, read, FNV-1a\n"
           "FPGA and CPLD faults (COUNT: occasions, -1 or none: for good):\n"
           "  erase-never-confirmed[:COUNT]    the erase status reports state 0\n"
           "  capacity-never-free[:COUNT]      the capacity query never reports room\n"
           "  clean-up-state-2[:COUNT]         the clean-up report carries state 2\n"
           "  record-write-unconfirmed[:COUNT] a slot 9 write is stored but not answered\n"
           "  read-back-other-crc[:COUNT]      the CPLD info report shows another CRC\n"
           "  run-never-completes[:COUNT]      the state word stays 0xFFFFFFFF after a run\n"
           "  transfer-unreadable[:COUNT]      the driver cannot read the file-transfer buffer\n"
           "  clean-up-status-1[:COUNT]        the clean-up report carries state 3 with byte 2 = 1\n"
           "  capacity-own-seq[:COUNT]         room answered with the query's own number in byte 1\n"
           "  capacity-status-busy[:COUNT]     room answered with byte 2 = 1\n"
           "  read-back-other-size[:COUNT]     the CPLD info report shows another size\n"
           "  upgrade-none                     clears the faults above\n"
           "  fpga-erase-time:MICROSECONDS     the erase is confirmed this long after it starts (50 s)\n"
           "  cpld-run-time:MICROSECONDS       the run completes this long after it starts (10 s)\n"
           "  urb-busy:MICROSECONDS            no room for this long after each chunk (0)\n";
}
