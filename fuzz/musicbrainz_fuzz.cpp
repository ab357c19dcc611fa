// Feeds arbitrary bytes to the MusicBrainz reply reader as a ws/2 reply.
#include <stdlib.h>

#include <string>

#include "fuzz/fuzz_root.h"
#include "ripping/lookup.h"

// libmusicbrainz5 leaks the earlier copy of an element that a reply repeats
// (CTrack::ParseElement and friends): a library fault, reported here only
// once per run instead of failing every input that repeats one.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libmusicbrainz5cc\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzRoot();
    if (size < 1) return 0;
    // The first byte is the disc's track count, the rest the reply.
    int tracks = data[0] % 100;
    std::string xml(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (const Candidate& c : parseMusicBrainzReply(xml, "RGsIqQtOzlx_LdxgsE0wIvFi8h4-", tracks)) {
        // Every candidate has one title per track of the disc, no more.
        if (static_cast<int>(c.tracks.size()) != tracks) abort();
        if (c.source != "musicbrainz") abort();
    }
    return 0;
}
