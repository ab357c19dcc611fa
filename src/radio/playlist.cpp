#include "radio/playlist.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

std::string lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isspace(static_cast<unsigned char>(s[b])))
        b++;
    while (e > b && isspace(static_cast<unsigned char>(s[e - 1])))
        e--;
    return s.substr(b, e - b);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t at = 0;
    // A byte-order mark would hide the first line's key.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) at = 3;
    while (at < text.size()) {
        size_t end = text.find_first_of("\r\n", at);
        if (end == std::string::npos) end = text.size();
        out.push_back(trim(text.substr(at, end - at)));
        at = end + 1;
    }
    return out;
}

bool startsNoCase(const std::string& s, const char* prefix) {
    return strncasecmp(s.c_str(), prefix, strlen(prefix)) == 0;
}

// The address without its query and fragment, for judging its extension.
std::string pathOf(const std::string& url) {
    return lower(url.substr(0, url.find_first_of("?#")));
}

bool endsWith(const std::string& s, const char* tail) {
    size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

std::string xmlDecode(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] != '&') {
            out += s[i];
            continue;
        }
        static const struct {
            const char* name;
            char c;
        } kEntities[] = {
            {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
        bool done = false;
        for (const auto& e : kEntities) {
            if (s.compare(i, strlen(e.name), e.name) == 0) {
                out += e.c;
                i += strlen(e.name) - 1;
                done = true;
                break;
            }
        }
        if (!done) out += '&';
    }
    return out;
}

void keep(std::vector<std::string>& out, const std::string& base, const std::string& ref) {
    std::string url = resolveUrl(base, trim(ref));
    if (isHttpUrl(url)) out.push_back(url);
}

std::vector<std::string> parsePls(const std::string& text, const std::string& base) {
    // "FileN=" lines, in N's order (files are not always written in order).
    std::vector<std::pair<long, std::string>> files;
    for (const std::string& line : lines(text)) {
        if (!startsNoCase(line, "file")) continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        long n = strtol(line.c_str() + 4, nullptr, 10);
        files.emplace_back(n, line.substr(eq + 1));
    }
    std::stable_sort(files.begin(), files.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> out;
    for (const auto& f : files)
        keep(out, base, f.second);
    return out;
}

std::vector<std::string> parseM3u(const std::string& text, const std::string& base) {
    std::vector<std::string> out;
    for (const std::string& line : lines(text)) {
        if (line.empty() || line[0] == '#') continue;
        keep(out, base, line);
    }
    return out;
}

// The value of attribute name in a tag's text (quoted or not), or "".
std::string attribute(const std::string& tag, const char* name) {
    std::string low = lower(tag);
    size_t at = 0;
    const size_t n = strlen(name);
    while ((at = low.find(name, at)) != std::string::npos) {
        bool boundary = at == 0 || isspace(static_cast<unsigned char>(low[at - 1]));
        size_t p = at + n;
        while (p < low.size() && isspace(static_cast<unsigned char>(low[p])))
            p++;
        if (!boundary || p >= low.size() || low[p] != '=') {
            at += n;
            continue;
        }
        p++;
        while (p < low.size() && isspace(static_cast<unsigned char>(low[p])))
            p++;
        if (p >= tag.size()) return "";
        char quote = tag[p];
        if (quote == '"' || quote == '\'') {
            size_t end = tag.find(quote, p + 1);
            if (end == std::string::npos) return "";
            return xmlDecode(tag.substr(p + 1, end - p - 1));
        }
        size_t end = tag.find_first_of(" \t\r\n>", p);
        return xmlDecode(tag.substr(p, end == std::string::npos ? std::string::npos : end - p));
    }
    return "";
}

// ASX is rarely well-formed XML: tags are found by name, in any case.
std::vector<std::string> parseAsx(const std::string& text, const std::string& base) {
    std::vector<std::string> out;
    std::string low = lower(text);
    size_t at = 0;
    while ((at = low.find('<', at)) != std::string::npos) {
        size_t end = low.find('>', at);
        if (end == std::string::npos) break;
        std::string tag = text.substr(at + 1, end - at - 1);
        std::string name = lower(tag.substr(0, tag.find_first_of(" \t\r\n/")));
        if (name == "ref" || name == "entryref") {
            std::string href = attribute(tag, "href");
            if (!href.empty()) keep(out, base, href);
        }
        at = end + 1;
    }
    return out;
}

std::vector<std::string> parseXspf(const std::string& text, const std::string& base) {
    std::vector<std::string> out;
    std::string low = lower(text);
    size_t at = 0;
    while ((at = low.find("<location>", at)) != std::string::npos) {
        at += 10;
        size_t end = low.find("</location>", at);
        if (end == std::string::npos) break;
        keep(out, base, xmlDecode(text.substr(at, end - at)));
        at = end;
    }
    return out;
}

// "KEY=value,KEY="quoted, value"" of an HLS tag.
std::string hlsAttribute(const std::string& list, const char* key) {
    size_t at = 0;
    const size_t n = strlen(key);
    while (at < list.size()) {
        size_t eq = list.find('=', at);
        if (eq == std::string::npos) return "";
        std::string name = trim(list.substr(at, eq - at));
        size_t v = eq + 1, next;
        std::string value;
        if (v < list.size() && list[v] == '"') {
            size_t close = list.find('"', v + 1);
            if (close == std::string::npos) close = list.size();
            value = list.substr(v + 1, close - v - 1);
            next = list.find(',', close);
        } else {
            next = list.find(',', v);
            value = list.substr(v, next == std::string::npos ? std::string::npos : next - v);
        }
        if (name.size() == n && strncasecmp(name.c_str(), key, n) == 0) return value;
        if (next == std::string::npos) return "";
        at = next + 1;
    }
    return "";
}

}  // namespace

const char* playlistKindName(PlaylistKind kind) {
    switch (kind) {
        case PlaylistKind::Pls:
            return "PLS";
        case PlaylistKind::M3u:
            return "M3U";
        case PlaylistKind::HlsMaster:
            return "HLS master";
        case PlaylistKind::HlsMedia:
            return "HLS";
        case PlaylistKind::Asx:
            return "ASX";
        case PlaylistKind::Xspf:
            return "XSPF";
        default:
            return "audio";
    }
}


PlaylistKind sniffPlaylist(const std::string& contentType, const std::string& url, const char* head,
                           size_t length) {
    std::string body(head, std::min<size_t>(length, 4096));
    std::string first = lower(trim(body.substr(0, 512)));
    if (first.compare(0, 3, "\xEF\xBB\xBF") == 0) first = trim(first.substr(3));
    // The bytes decide first: servers label playlists and audio wrongly.
    if (first.compare(0, 10, "[playlist]") == 0) return PlaylistKind::Pls;
    if (first.compare(0, 7, "#extm3u") == 0) {
        if (body.find("#EXT-X-STREAM-INF") != std::string::npos) return PlaylistKind::HlsMaster;
        if (body.find("#EXT-X-TARGETDURATION") != std::string::npos ||
            body.find("#EXT-X-MEDIA-SEQUENCE") != std::string::npos)
            return PlaylistKind::HlsMedia;
        return PlaylistKind::M3u;
    }
    if (first.compare(0, 4, "<asx") == 0) return PlaylistKind::Asx;
    if (first.compare(0, 1, "<") == 0 && first.find("<playlist") != std::string::npos &&
        first.find("xspf") != std::string::npos)
        return PlaylistKind::Xspf;
    std::string type = lower(contentType.substr(0, contentType.find(';')));
    type = trim(type);
    std::string path = pathOf(url);
    bool text = !body.empty() && std::all_of(first.begin(), first.end(), [](char c) {
        unsigned char u = static_cast<unsigned char>(c);
        return u >= 0x20 || u == '\n' || u == '\r' || u == '\t';
    });
    if (type == "audio/x-scpls" || endsWith(path, ".pls"))
        return text ? PlaylistKind::Pls : PlaylistKind::None;
    if (type == "application/vnd.apple.mpegurl" || type == "application/x-mpegurl" ||
        type == "audio/mpegurl" || type == "audio/x-mpegurl" || endsWith(path, ".m3u") ||
        endsWith(path, ".m3u8"))
        return text ? PlaylistKind::M3u : PlaylistKind::None;
    if (type == "video/x-ms-asf" || type == "video/x-ms-asx" || type == "audio/x-ms-wax" ||
        endsWith(path, ".asx"))
        return text && first.find("<asx") != std::string::npos ? PlaylistKind::Asx
                                                               : PlaylistKind::None;
    if (type == "application/xspf+xml" || endsWith(path, ".xspf"))
        return text ? PlaylistKind::Xspf : PlaylistKind::None;
    return PlaylistKind::None;
}

std::vector<std::string> parsePlaylist(PlaylistKind kind, const std::string& text,
                                       const std::string& base) {
    switch (kind) {
        case PlaylistKind::Pls:
            return parsePls(text, base);
        case PlaylistKind::M3u:
            return parseM3u(text, base);
        case PlaylistKind::Asx:
            return parseAsx(text, base);
        case PlaylistKind::Xspf:
            return parseXspf(text, base);
        default:
            return {};
    }
}

std::vector<HlsVariant> parseHlsMaster(const std::string& text, const std::string& base) {
    std::vector<HlsVariant> out;
    bool pending = false;
    HlsVariant v;
    for (const std::string& line : lines(text)) {
        if (startsNoCase(line, "#EXT-X-STREAM-INF:")) {
            v = HlsVariant();
            std::string list = line.substr(18);
            v.bandwidth = atol(hlsAttribute(list, "BANDWIDTH").c_str());
            v.codecs = hlsAttribute(list, "CODECS");
            pending = true;
        } else if (pending && !line.empty() && line[0] != '#') {
            v.url = resolveUrl(base, line);
            if (isHttpUrl(v.url)) out.push_back(v);
            pending = false;
        }
    }
    return out;
}

const HlsVariant* pickHlsVariant(const std::vector<HlsVariant>& variants, long maxBandwidth) {
    const HlsVariant* best = nullptr;
    const HlsVariant* smallest = nullptr;
    for (const HlsVariant& v : variants) {
        if (!smallest || v.bandwidth < smallest->bandwidth) smallest = &v;
        if (v.bandwidth <= maxBandwidth && (!best || v.bandwidth > best->bandwidth)) best = &v;
    }
    return best ? best : smallest;
}

HlsMedia parseHlsMedia(const std::string& text, const std::string& base) {
    HlsMedia m;
    double duration = 0;
    long long sequence = -1;
    for (const std::string& line : lines(text)) {
        if (line.empty()) continue;
        if (line[0] == '#') {
            if (startsNoCase(line, "#EXT-X-TARGETDURATION:")) {
                m.targetDuration = atof(line.c_str() + 22);
            } else if (startsNoCase(line, "#EXT-X-MEDIA-SEQUENCE:")) {
                m.mediaSequence = atoll(line.c_str() + 22);
            } else if (startsNoCase(line, "#EXTINF:")) {
                duration = atof(line.c_str() + 8);
            } else if (startsNoCase(line, "#EXT-X-ENDLIST")) {
                m.endList = true;
            } else if (startsNoCase(line, "#EXT-X-MAP:")) {
                std::string uri = hlsAttribute(line.substr(11), "URI");
                if (!uri.empty()) m.mapUrl = resolveUrl(base, uri);
            } else if (startsNoCase(line, "#EXT-X-KEY:")) {
                std::string method = hlsAttribute(line.substr(11), "METHOD");
                m.encrypted = !method.empty() && strcasecmp(method.c_str(), "NONE") != 0;
            }
            continue;
        }
        if (sequence < 0) sequence = m.mediaSequence;
        HlsSegment s;
        s.url = resolveUrl(base, line);
        s.duration = duration;
        s.sequence = sequence++;
        duration = 0;
        if (isHttpUrl(s.url)) m.segments.push_back(s);
    }
    // Nonsense durations would make the reload loop spin or sleep for ever.
    if (!(m.targetDuration >= 1)) m.targetDuration = 1;
    if (m.targetDuration > 60) m.targetDuration = 60;
    return m;
}

size_t id3TagLength(const unsigned char* data, size_t length) {
    if (length < 10 || memcmp(data, "ID3", 3) != 0) return 0;
    for (int i = 6; i < 10; i++)
        if (data[i] & 0x80) return 0;
    size_t size = (static_cast<size_t>(data[6]) << 21) | (static_cast<size_t>(data[7]) << 14) |
                  (static_cast<size_t>(data[8]) << 7) | data[9];
    size_t total = 10 + size + ((data[5] & 0x10) ? 10 : 0);
    return std::min(total, length);
}
