// Arbitrary bytes as a station's playlist reply, under every label and
// address a server could give it, and as an ICY stream cut at random places:
// the parsers must never crash and never hand on anything but web addresses.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "radio/icy.h"
#include "radio/playlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    static const char* const kTypes[] = {
        "",          "audio/x-scpls", "audio/mpegurl", "video/x-ms-asf", "application/xspf+xml",
        "audio/mpeg"};
    static const char* const kUrls[] = {"http://h/a/s", "http://h/l.pls", "http://h/l.m3u8?x",
                                        "https://h/l.asx", "http://h/l.xspf"};
    for (const char* type : kTypes) {
        for (const char* url : kUrls) {
            PlaylistKind kind = sniffPlaylist(type, url, text.data(), text.size());
            for (const std::string& u : parsePlaylist(kind, text, url))
                if (!isHttpUrl(u)) abort();
        }
    }
    for (const HlsVariant& v : parseHlsMaster(text, "http://h/a/m.m3u8"))
        if (!isHttpUrl(v.url)) abort();
    HlsMedia media = parseHlsMedia(text, "http://h/a/m.m3u8");
    if (media.targetDuration < 1 || media.targetDuration > 60) abort();
    for (const HlsSegment& s : media.segments)
        if (!isHttpUrl(s.url)) abort();
    if (id3TagLength(data, size) > size) abort();

    // The first byte picks the metadata interval, the rest is the stream.
    if (size < 2) return 0;
    long metaint = data[0] % 32;
    size_t audio = 0;
    IcySplitter icy(
        metaint,
        [&](const char*, size_t n) {
            audio += n;
            return true;
        },
        [&](const std::string& title) {
            if (title.size() > 512) abort();
            if (cleanStreamText(title, 4096) != title) abort();
        });
    size_t at = 1;
    while (at < size) {
        size_t n = 1 + data[at] % 64;
        if (n > size - at) n = size - at;
        icy.feed(text.data() + at, n);
        at += n;
    }
    if (audio > size) abort();
    return 0;
}
