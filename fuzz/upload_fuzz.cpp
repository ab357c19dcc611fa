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

size_t filesBelow(const std::string& folder) {
    std::error_code e;
    size_t n = 0;
    for (auto it = std::filesystem::recursive_directory_iterator(folder, e);
         !e && it != std::filesystem::recursive_directory_iterator(); it.increment(e)) {
        n += it->is_regular_file(e);
    }
    return n;
}

}  // namespace

// One parser serves connection after connection, as the listener's does. An
// input is a series of connections: a control byte (bit 0 audio, bit 1 an
// artist, bit 2 not armed at all, bit 3 cut off before the body's end), a
// record size, a length and that many body bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string root = setUp();
    StdinParser parser;
    long frames = 0;
    long bodyBytes = 0;
    parser.audio.enabled = [] { return true; };
    parser.audio.put = [&frames](const uint8_t*, int count) { frames += count; };
    parser.audio.held = [&frames] { return static_cast<int>(frames); };
    parser.audio.capacity = 500000;
    size_t at = 0;
    for (int connection = 0; connection < 8 && at + 4 <= size; connection++) {
        uint8_t control = data[at];
        size_t step = 1 + data[at + 1] % 97;
        size_t length = std::min<size_t>(data[at + 2] << 8 | data[at + 3], size - at - 4);
        const uint8_t* body = data + at + 4;
        at += 4 + length;
        bool armed = !(control & 4);
        if (armed && (control & 1)) {
            parser.armAudio();
        } else if (armed) {
            parser.armUpload(control & 2 ? "Artist" : "");
        }
        size_t before = filesBelow(root);
        for (size_t i = 0; i < length; i += step) {
            size_t n = std::min(step, length - i);
            parser.process(body + i, static_cast<int>(n));
        }
        bodyBytes += static_cast<long>(length);
        if (!(control & 8)) {
            parser.process(body, 0);
            if (parser.state() != 0) abort();
        }
        parser.connectionEnded();
        if (parser.state() != 0) abort();
        // A body no command asked for never lands on the disk.
        if (!armed && filesBelow(root) > before) abort();
    }
    if (frames > bodyBytes / 4 + 1) abort();
    // Keep the scratch library small between runs.
    std::filesystem::remove_all(root + "/music");
    std::filesystem::create_directories(root + "/music");
    std::filesystem::remove_all(root + "/upload");
    clearDB();
    return 0;
}
