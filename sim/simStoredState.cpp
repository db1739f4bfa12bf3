// The saved state of the simulated appliance, for the out-of-process front
// end: what the microcontroller keeps across a power cycle.
#include "simModel.h"

#include "leBytes.h"
#include "uniqueFd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Version 2 added the CPLD image; the FPGA's 16 MiB are not kept (a test
// reads them through the model while the appliance runs).
constexpr char SIM_STATE_MAGIC[8] = {'T', 'H', 'S', 'I', 'M', 'S', 'T', 0};
constexpr uint32_t SIM_STATE_VERSION = 2;
constexpr size_t SIM_STATE_SLOT_SIZE = 4 + 4 + 1 + 48;
constexpr size_t SIM_STATE_HEADER_SIZE = 8 + 4 + 8;
constexpr size_t SIM_STATE_SIZE =
    SIM_STATE_HEADER_SIZE + SIM_SLOT_COUNT * SIM_STATE_SLOT_SIZE + SIM_FLASH_SIZE + SIM_CPLD_IMAGE_SIZE + 4;

auto &model = simAppliancePrivateMembers;

} // namespace

// ---- Persistence -----------------------------------------------------------

bool simSaveState(const std::string &path)
{
    std::vector<uint8_t> out;
    out.reserve(SIM_STATE_SIZE);
    out.insert(out.end(), SIM_STATE_MAGIC, SIM_STATE_MAGIC + sizeof(SIM_STATE_MAGIC));
    uint8_t word[4];
    lePut32(word, SIM_STATE_VERSION);
    out.insert(out.end(), word, word + 4);
    const uint8_t flags[8] = {static_cast<uint8_t>(model.mode), model.pendingSwitch ? uint8_t{1} : uint8_t{0},
                              static_cast<uint8_t>(model.pendingMode), model.nodePresent ? uint8_t{1} : uint8_t{0},
                              model.powerLost ? uint8_t{1} : uint8_t{0}, 0, 0, 0};
    out.insert(out.end(), flags, flags + sizeof(flags));
    for (const simSlot &s : model.slots) {
        lePut32(word, s.word0);
        out.insert(out.end(), word, word + 4);
        lePut32(word, s.word1);
        out.insert(out.end(), word, word + 4);
        out.push_back(s.len);
        out.insert(out.end(), s.data, s.data + sizeof(s.data));
    }
    out.insert(out.end(), model.flash.begin(), model.flash.end());
    out.insert(out.end(), model.cpldImage.begin(), model.cpldImage.end());
    lePut32(word, __simFnv1a(SIM_FNV_BASIS, out.data(), out.size()));
    out.insert(out.end(), word, word + 4);

    // Written aside and renamed, so a crash never leaves half a state behind.
    const std::string tmp = path + ".tmp";
    {
        uniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!fd.valid()) {
            return false;
        }
        size_t done = 0;
        while (done < out.size()) {
            const ssize_t n = ::write(fd.get(), out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                ::unlink(tmp.c_str());
                return false;
            }
            done += static_cast<size_t>(n);
        }
    }
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool simLoadState(const std::string &path)
{
    std::vector<uint8_t> in(SIM_STATE_SIZE + 1);
    size_t got = 0;
    {
        uniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.valid()) {
            return false;
        }
        // One byte more than a state holds tells an overlong file apart.
        while (got < in.size()) {
            const ssize_t n = ::read(fd.get(), in.data() + got, in.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                return false;
            }
            if (n == 0) {
                break;
            }
            got += static_cast<size_t>(n);
        }
    }
    if (got != SIM_STATE_SIZE || std::memcmp(in.data(), SIM_STATE_MAGIC, sizeof(SIM_STATE_MAGIC)) != 0 ||
        leGet32(&in[8]) != SIM_STATE_VERSION ||
        leGet32(&in[SIM_STATE_SIZE - 4]) != __simFnv1a(SIM_FNV_BASIS, in.data(), SIM_STATE_SIZE - 4)) {
        return false;
    }
    const uint8_t *flags = &in[12];
    const uint8_t maxMode = static_cast<uint8_t>(simMode::DEAD);
    if (flags[0] > maxMode || flags[1] > 1 || flags[2] > maxMode || flags[3] > 1 || flags[4] > 1) {
        return false;
    }
    std::array<simSlot, SIM_SLOT_COUNT> slots;
    const uint8_t *p = &in[SIM_STATE_HEADER_SIZE];
    for (simSlot &s : slots) {
        s.word0 = leGet32(p);
        s.word1 = leGet32(p + 4);
        s.len = p[8];
        if (s.len > sizeof(s.data) && s.len != 0xFF) {
            return false;
        }
        std::memcpy(s.data, p + 9, sizeof(s.data));
        p += SIM_STATE_SLOT_SIZE;
    }
    model.mode = static_cast<simMode>(flags[0]);
    model.pendingSwitch = flags[1] != 0;
    model.pendingMode = static_cast<simMode>(flags[2]);
    if (model.nodePresent && flags[3] == 0) {
        __simStaleHandles();
    }
    model.nodePresent = flags[3] != 0;
    model.powerLost = flags[4] != 0;
    model.slots = slots;
    std::memcpy(model.flash.data(), p, SIM_FLASH_SIZE);
    std::memcpy(model.cpldImage.data(), p + SIM_FLASH_SIZE, SIM_CPLD_IMAGE_SIZE);
    model.programRunOpen = false;
    model.queue.clear();
    return true;
}

