// tarnholdctl trace: the recording is mapped whole and read record by record
// with the checked reader; each record is printed as it is read, so a damaged
// one ends the output with everything before it shown.
#include "tarnholdCtlTrace.h"

#include "recordFormat.h"
#include "tarnholdCtlText.h"
#include "tarnholdTrace.h"
#include "uniqueFd.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>

namespace {

// A mapping that is released on every path.
struct ctlTraceMapping {
    void *data = MAP_FAILED;
    size_t size = 0;
    ~ctlTraceMapping()
    {
        if (data != MAP_FAILED) {
            munmap(data, size);
        }
    }
};

void __ctlTraceFail(const char *path, bool json, const std::string &where, const char *message)
{
    fprintf(stderr, "tarnholdctl: %s: %s%s\n", tracePrintable(path).c_str(), where.c_str(),
            tracePrintable(message).c_str());
    if (json) {
        printf("{\"error\":%s}\n", tarnholdCtlJsonString(where + message).c_str());
    }
}

void __ctlTraceHeader(const recordFileHeader &h, bool json)
{
    const time_t seconds = static_cast<time_t>(h.startWallMs / 1000);
    tm utc = {};
    char date[64];
    char start[96];
    // Where no date could be made (strftime's text is then undefined), the number itself.
    if (gmtime_r(&seconds, &utc) == nullptr || strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &utc) == 0) {
        snprintf(start, sizeof start, "%" PRIu64 " ms since 1970", h.startWallMs);
    } else {
        snprintf(start, sizeof start, "%s.%03u UTC", date, static_cast<unsigned>(h.startWallMs % 1000));
    }
    const bool data = (h.flags & RECORD_FLAG_DATA) != 0;
    if (json) {
        printf("{\"format\":%u,\"build\":%s,\"startWallMs\":%" PRIu64 ",\"data\":%s}\n", h.version,
               tarnholdCtlJsonString(h.build).c_str(), h.startWallMs, data ? "true" : "false");
    } else {
        // The build text is the recording's own: a made-up file carries any bytes there.
        const std::string build = tracePrintable(std::string_view(h.build, strnlen(h.build, sizeof h.build)));
        printf("recording format %u, %s, started %s, %s\n", h.version, build.c_str(), start,
               data ? "file and memory bytes kept" : "file and memory hashes only");
    }
}

} // namespace

tarnholdCtlTraceOutcome tarnholdCtlTrace(const char *path, bool json)
{
    // Without blocking: a FIFO or a device named here is refused, never waited on.
    uniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st = {};
    const char *unreadable = !fd.valid() || fstat(fd.get(), &st) != 0 ? strerror(errno)
                             : !S_ISREG(st.st_mode)                   ? "not a regular file"
                                                                      : nullptr;
    if (unreadable != nullptr) {
        __ctlTraceFail(path, json, "", unreadable);
        return tarnholdCtlTraceOutcome::UNREADABLE;
    }
    ctlTraceMapping map;
    map.size = static_cast<size_t>(st.st_size);
    if (map.size != 0 && (map.data = mmap(nullptr, map.size, PROT_READ, MAP_PRIVATE, fd.get(), 0)) == MAP_FAILED) {
        __ctlTraceFail(path, json, "", strerror(errno));
        return tarnholdCtlTraceOutcome::UNREADABLE;
    }
    const std::span<const uint8_t> file(map.size != 0 ? static_cast<const uint8_t *>(map.data) : nullptr, map.size);

    recordFileHeader header;
    recordError error;
    if (!recordReadHeader(file, header, error)) {
        __ctlTraceFail(path, json, "", error.message);
        return tarnholdCtlTraceOutcome::REFUSED;
    }
    __ctlTraceHeader(header, json);
    traceState state;
    recordView view;
    uint64_t offset = header.headerSize;
    uint64_t index = 0;
    int got;
    while ((got = recordReadNext(file, offset, index, view, error)) == 1) {
        printf("%s\n", (json ? traceJson(state, view) : traceLine(state, view)).c_str());
        traceTake(state, view);
    }
    if (got < 0) {
        fflush(stdout);
        __ctlTraceFail(path, json,
                       "exchange " + std::to_string(error.index) + " (offset " + std::to_string(error.offset) + "): ",
                       error.message);
        return tarnholdCtlTraceOutcome::REFUSED;
    }
    return tarnholdCtlTraceOutcome::PRINTED;
}
