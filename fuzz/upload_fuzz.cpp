// Feeds arbitrary bytes, split into records at points the input chooses, to
// the request-body parser: uploads into a scratch library, and browser audio.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "fuzz/fuzz_root.h"
#include "library/library.h"
#include "web/upload.h"

namespace {

std::string setUp() {
    std::filesystem::create_directories(fuzzRoot() + "/music");
    return fuzzRoot();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string root = setUp();
    if (size < 2) return 0;
    StdinParser parser;
    long frames = 0;
    parser.audio.enabled = [] { return true; };
    parser.audio.put = [&frames](const uint8_t*, int count) { frames += count; };
    parser.audio.held = [&frames] { return static_cast<int>(frames); };
    parser.audio.capacity = 500000;
    // The first byte picks the mode and the record size.
    if (data[0] & 1) {
        parser.armAudio();
    } else {
        parser.armUpload(data[0] & 2 ? "Artist" : "");
    }
    size_t step = 1 + data[1] % 97;
    for (size_t at = 2; at < size; at += step) {
        size_t n = std::min(step, size - at);
        parser.process(data + at, static_cast<int>(n));
    }
    parser.process(data, 0);
    if (parser.state() != 0) abort();
    parser.connectionEnded();
    if (frames > static_cast<long>(size) / 4 + 1) abort();
    // Keep the scratch library small between runs.
    std::filesystem::remove_all(root + "/music");
    std::filesystem::create_directories(root + "/music");
    std::filesystem::remove_all(root + "/upload");
    clearDB();
    return 0;
}
