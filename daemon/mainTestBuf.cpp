// The file-transfer test buffer and its start-up fill. Kept apart from the
// process entry so the request handlers that hand its address to the driver
// link it without the rest of the daemon core.
#include "main.h"

#include <cstring>

uint8_t __testingTmmmmpBuf[MAIN_TEST_BUF_SIZE];

namespace {

__attribute__((constructor)) void __init__testingTmmmmpBuf()
{
    for (size_t block = 0; block < MAIN_TEST_BUF_BLOCKS; ++block) {
        memset(__testingTmmmmpBuf + block * MAIN_TEST_BUF_BLOCK, static_cast<int>(block % 256),
               MAIN_TEST_BUF_BLOCK);
    }
}

} // namespace
