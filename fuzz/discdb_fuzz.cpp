// Feeds arbitrary bytes to the offline disc database as its file, then
// writes to it as a lookup would: a damaged file must never stop a save or
// leave a file that does not read back.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzz_root.h"
#include "ripping/lookup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzzRoot() + "/kzdiscs";
    std::string text(reinterpret_cast<const char*>(data), size);
    parseDiscDatabase(text, "disc-1");
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) abort();
    fwrite(data, 1, size, f);
    fclose(f);
    DiscDatabase db(path);
    db.find("disc-1");
    DiscKey key;
    key.discid = "disc-1";
    key.offsets = {150, 300};
    Candidate c;
    c.source = "cddb";
    // Names are C strings everywhere: up to the first NUL.
    c.artist = text.substr(0, std::min<size_t>(40, text.find('\0')));
    c.tracks = {"a", "b"};
    if (!db.putFound(key, {c})) abort();
    std::vector<Candidate> back = db.find("disc-1");
    if (back.empty() || back.back().artist != c.artist) abort();
    return 0;
}
