// Feeds arbitrary bytes to the compression job's WAV reader as a file. A
// file it accepts must give exactly the frames it promised, and must become
// a FLAC that decodes to the same samples: the job removes the WAV on that
// proof alone.
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_root.h"
#include "ripping/encode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string wav = fuzzRoot() + "/in.wav";
    static const std::string flac = fuzzRoot() + "/out.flac";
    FILE* f = fopen(wav.c_str(), "wb");
    if (!f) abort();
    fwrite(data, 1, size, f);
    fclose(f);

    WavReader r;
    std::string why;
    if (!r.open(wav, &why)) {
        if (why.empty()) abort();
        return 0;
    }
    if (r.frames < 0 || r.channels < 1 || r.channels > 2) abort();
    std::vector<int32_t> samples(4096 * 2);
    long total = 0;
    for (long n; (n = r.read(samples.data(), 4096)) > 0;) {
        const int32_t top = r.bits == 8 ? 127 : static_cast<int32_t>((1LL << (r.bits - 1)) - 1);
        for (long i = 0; i < n * r.channels; i++) {
            if (samples[static_cast<size_t>(i)] > top || samples[static_cast<size_t>(i)] < -top - 1) abort();
        }
        total += n;
    }
    if (total != r.frames) abort();
    // Encoding is slow next to parsing: only small files go the whole way.
    if (r.frames > 20000) return 0;
    TrackTags tags;
    tags.artist = r.artist;
    tags.title = r.title;
    CodecResult e = encodeFlac(wav, flac, tags, nullptr);
    if (!e.ok) {
        if (r.bits > 24) return 0;  // kept as WAV on purpose
        fprintf(stderr, "encode: %s\n", e.why.c_str());
        abort();
    }
    CodecResult v = verifyFlac(wav, flac);
    if (!v.ok) {
        fprintf(stderr, "verify: %s\n", v.why.c_str());
        abort();
    }
    return 0;
}
