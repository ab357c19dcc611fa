// The files a station's address may lead to before its audio: .pls, .m3u,
// HLS .m3u8 (master and media), .asx and .xspf. Pure text in, addresses out;
// only http and https addresses come out, so a playlist can never point the
// fetcher at a local file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "core/http.h"

enum class PlaylistKind { None, Pls, M3u, HlsMaster, HlsMedia, Asx, Xspf };

const char* playlistKindName(PlaylistKind kind);

// What a reply is, from its Content-Type, its address and its first bytes.
// None means audio (or something that is not a playlist).
PlaylistKind sniffPlaylist(const std::string& contentType, const std::string& url, const char* head,
                           size_t length);


// The stream addresses of a .pls, .m3u, .asx or .xspf, in order.
std::vector<std::string> parsePlaylist(PlaylistKind kind, const std::string& text,
                                       const std::string& base);

struct HlsVariant {
    std::string url;
    long bandwidth = 0;
    std::string codecs;
};
std::vector<HlsVariant> parseHlsMaster(const std::string& text, const std::string& base);
// The variant to play: the best at or under maxBandwidth, else the smallest.
const HlsVariant* pickHlsVariant(const std::vector<HlsVariant>& variants, long maxBandwidth);

struct HlsSegment {
    std::string url;
    double duration = 0;
    long long sequence = 0;
};
struct HlsMedia {
    double targetDuration = 0;
    long long mediaSequence = 0;
    bool endList = false;
    std::string mapUrl;  // EXT-X-MAP: an initialisation segment
    bool encrypted = false;
    std::vector<HlsSegment> segments;
};
HlsMedia parseHlsMedia(const std::string& text, const std::string& base);

// How many leading bytes of an HLS packed-audio segment are its ID3 tag.
size_t id3TagLength(const unsigned char* data, size_t length);
