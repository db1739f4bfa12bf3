// Feeds arbitrary bytes to the recording reader and the trace printer: the
// input as a whole file, or, when its first byte is odd, the rest after a
// valid header so that the records themselves are reached. Holds what the
// reader promises (each record within the file, offsets only growing, a
// clean end or an error) and what the printer promises (one line, one
// JSON object), with nothing read outside the bytes given.
#include "recordFormat.h"
#include "tarnholdTrace.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> file;
    if (size > 0 && (data[0] & 1) != 0) {
        recordFileHeader h = {};
        std::memcpy(h.magic, RECORD_MAGIC, sizeof h.magic);
        h.version = RECORD_FORMAT_VERSION;
        h.headerSize = sizeof h;
        file.resize(sizeof h);
        std::memcpy(file.data(), &h, sizeof h);
        ++data, --size;
    }
    file.insert(file.end(), data, data + size);
    // A copy of exactly the input's size, so that the sanitizer sees any read past its end.
    const std::span<const uint8_t> bytes(file);

    recordFileHeader header;
    recordError error;
    if (!recordReadHeader(bytes, header, error)) {
        return 0;
    }
    traceState state;
    recordView view;
    uint64_t offset = header.headerSize;
    uint64_t index = 0;
    int got;
    while ((got = recordReadNext(bytes, offset, index, view, error)) == 1) {
        const uint8_t *end = bytes.data() + bytes.size();
        const bool outside = view.offset + view.head.size != offset || offset > bytes.size() ||
                             (!view.text.empty() && view.text.data() + view.text.size() > end) ||
                             (!view.data.empty() && view.data.data() + view.data.size() > end);
        const std::string line = traceLine(state, view);
        const std::string json = traceJson(state, view);
        if (outside || index != view.index || line.find('\n') != std::string::npos || json.front() != '{' ||
            json.back() != '}' || json.find('\n') != std::string::npos) {
            abort();
        }
        traceTake(state, view);
    }
    if (got < 0 && error.index != index + 1) {
        abort();
    }
    return 0;
}
