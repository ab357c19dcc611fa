// Feeds arbitrary bytes to the WAV chunk reader as a whole file and to the
// INFO list parser as a list body, and checks that what they keep survives
// being written and read again.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "ripping/wav.h"

namespace {

bool setUp() {
    // Unknown tags are logged; the fuzzer's own output is what matters.
    if (!freopen("/dev/null", "w", stdout)) abort();
    return true;
}

bool sameText(const char* a, const char* b) {
    if (!a || !b) return a == b;
    return strcmp(a, b) == 0;
}

void checkRoundTrip(const WavListInfo* info) {
    std::string list = WavListInfoBuild(info);
    if (list.size() < 12) abort();
    WavListInfo* back = WavListInfoCreate();
    WavListInfoParseFromBuf(back, reinterpret_cast<const uint8_t*>(list.data()) + 12,
                            list.size() - 12);
    for (int i = 0; i < WAV_TOC; i++) {
        if (!sameText(info->text[i], back->text[i])) abort();
    }
    if (back->text[WAV_TOC]) abort();
    WavListInfoDestroy(back);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = setUp();
    (void)ready;

    WavListInfo* info = WavListInfoCreate();
    WavListInfoParseFromBuf(info, data, size);
    checkRoundTrip(info);
    WavListInfoDestroy(info);

    info = WavListInfoCreate();
    WavFileInfo file;
    int ok = WavReadChunks(data, size, &file, info);
    if (ok && (!file.hasFmt || file.dataOffset < 12 || static_cast<size_t>(file.dataOffset) > size))
        abort();
    WavFmtPrint(&file.fmt);
    WavListInfoPrint(info);
    checkRoundTrip(info);
    WavListInfoDestroy(info);

    WavPrintBuf(data, size < 64 ? size : 64);
    return 0;
}
