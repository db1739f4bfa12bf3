// Firmware files as the service loads them, for tarnholdctl.
#include "tarnholdCtlFirmware.h"

#include "evmLog.h"
#include "qxFile.h"
#include "uniqueFd.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

void __ctlFirmwareLogToStderr(int, const char *source, int, const char *text) { fprintf(stderr, "%s: %s\n", source, text); }
void __ctlFirmwareLogDrop(int, const char *, int, const char *) {}

} // namespace

int32_t tarnholdCtlLoadFirmware(const char *path, bool verbose, tarnholdCtlFirmwareFile &file)
{
    evmLogSetSink(verbose ? __ctlFirmwareLogToStderr : __ctlFirmwareLogDrop);
    // The loader prints its digest line on standard output, which carries ours.
    fflush(stdout);
    uniqueFd savedStdout(dup(STDOUT_FILENO));
    if (verbose) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
    } else {
        uniqueFd devNull(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(devNull.valid() ? devNull.get() : STDERR_FILENO, STDOUT_FILENO);
    }
    // The loader keeps the first image it loaded; each file is a fresh load.
    qxFileReset();
    int32_t rc = qxFileInit(path);
    fflush(stdout);
    if (savedStdout.valid()) {
        dup2(savedStdout.get(), STDOUT_FILENO);
    }
    evmLogSetSink(nullptr);
    if (rc == 0) {
        std::array<uint8_t, QX_FILE_DIGEST_SIZE> digest = {};
        qxFileGetMd5AndLen(&file.len, digest.data());
        std::copy_n(digest.begin(), file.md5.size(), file.md5.begin());
    }
    return rc;
}

bool tarnholdCtlFirmwareCurrent(const tarnholdCtlSlot &stored, const tarnholdCtlFirmwareFile &file)
{
    return stored.valid && stored.len >= TARNHOLD_CTL_FIRMWARE_MD5_SIZE &&
           stored.word0 == static_cast<uint32_t>(file.len) &&
           memcmp(stored.data.data(), file.md5.data(), TARNHOLD_CTL_FIRMWARE_MD5_SIZE) == 0;
}
