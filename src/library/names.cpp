#include "library/names.h"

#include <strings.h>

#include <cctype>
#include <cstring>

const char* findNoCase(const char* hay, const char* needle) {
    size_t n = strlen(needle);
    if (n == 0) return hay;
    // Only positions that start with the needle's first letter (either case)
    // are compared whole: a search runs this over every name there is.
    char first = needle[0];
    char lower = first >= 'A' && first <= 'Z' ? static_cast<char>(first - 'A' + 'a') : first;
    char upper = first >= 'a' && first <= 'z' ? static_cast<char>(first - 'a' + 'A') : first;
    for (const char* p = hay; *p; p++) {
        if ((*p == lower || *p == upper) && strncasecmp(p, needle, n) == 0) return p;
    }
    return nullptr;
}

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool endsWithExtension(const char* name, const char* ext) {
    if (!name) return false;
    const char* at = findNoCase(name, ext);
    return at && at[strlen(ext)] == 0;
}

bool allowedMusicTrack(const char* name) {
    return endsWithExtension(name, ".wav") || endsWithExtension(name, ".mp3") ||
           endsWithExtension(name, ".m4a") || endsWithExtension(name, ".flac");
}

bool isArtFile(const char* name) {
    return endsWithExtension(name, ".jpg") || endsWithExtension(name, ".png") ||
           endsWithExtension(name, ".jpeg");
}

bool isVideoFile(const char* name) {
    return endsWithExtension(name, ".mp4") || endsWithExtension(name, ".mov");
}

bool hasMusicExtension(const char* name) {
    return findNoCase(name, ".wav") || findNoCase(name, ".mp3") || findNoCase(name, ".flac") ||
           findNoCase(name, ".m4a");
}

const char* extensionWord(const char* name) {
    if (!name) return "NIY";
    if (findNoCase(name, ".wav")) return "WAV";
    if (findNoCase(name, ".mp3")) return "MP3";
    if (findNoCase(name, ".m4a")) return "AAC";
    if (findNoCase(name, ".flac")) return "FLAC";
    return "NIY";
}

bool isTrackNumberLetter(char c) {
    return isDigit(c) || c == '-';
}

char beginsWithTrackNumber(const char* name) {
    if (!isDigit(*name)) return 0;
    while (isTrackNumberLetter(*name))
        name++;
    while (*name == ' ')
        name++;
    return *name;
}

void copyTrackNumber(const char* src, char* dst) {
    while (isTrackNumberLetter(*src))
        *dst++ = *src++;
    *dst = 0;
}

const char* skipTno(const char* name) {
    if (!isDigit(*name)) return name;
    while (isDigit(*name))
        name++;
    while (isspace(static_cast<unsigned char>(*name)))
        name++;
    return name;
}

int getdec(const char** p, int* value) {
    if (!isDigit(**p)) return 0;
    int v = 0;
    while (isDigit(**p)) {
        v = v * 10 + (**p - '0');
        (*p)++;
    }
    *value = v;
    return 1;
}

int trackOrderOfName(const char* name) {
    int n = 0, m = 0;
    if (!getdec(&name, &n)) return 0;
    if (*name != '-') return n;
    name++;
    if (!getdec(&name, &m)) return 0;
    return 100 * n + m;
}

std::string nameWithoutExtension(const char* name) {
    std::string s = name;
    size_t dot = s.rfind('.');
    if (dot != std::string::npos) s.resize(dot);
    return s;
}

std::string cleanTrackName(const char* name) {
    std::string s = nameWithoutExtension(name);
    const char* p = s.c_str();
    while (*p == ' ')
        p++;
    while (isTrackNumberLetter(*p))
        p++;
    while (*p == ' ')
        p++;
    if (*p == '-') {
        p++;
        while (*p == ' ')
            p++;
    }
    return p;
}

int32_t getClassFromName(const char* name) {
    uint32_t mask = 0;
    bool inGroup = false;
    for (const char* p = name; *p; p++) {
        if (*p == '[') {
            inGroup = true;
            mask = 0;
        } else if (inGroup) {
            if (*p == ']') return static_cast<int32_t>(mask);
            if (*p >= 'A' && *p <= 'Z') {
                mask += 1u << (*p - 'A');
            } else {
                inGroup = false;
            }
        }
    }
    return 0;
}

void stripClass(char* out, const char* in) {
    const char* group = nullptr;  // the "[" of a candidate group
    for (const char* p = in; *p; p++) {
        if (*p == '[') {
            if (group) {
                memcpy(out, group, p - group);
                out += p - group;
            }
            group = p;
        } else if (group) {
            if (*p == ']') {
                group = nullptr;
            } else if (!(*p >= 'A' && *p <= 'Z')) {
                memcpy(out, group, p - group + 1);
                out += p - group + 1;
                group = nullptr;
            }
        } else {
            *out++ = *p;
        }
    }
    if (group) {
        size_t n = strlen(group);
        memcpy(out, group, n);
        out += n;
    }
    *out = 0;
}

std::string stripClass(const char* in) {
    std::string out(strlen(in) + 1, '\0');
    stripClass(out.data(), in);
    out.resize(strlen(out.c_str()));
    return out;
}

bool badName(const char* name) {
    if (!name || !*name) return true;
    if (strchr(name, '*')) return true;
    for (const char* p = name; *p; p++) {
        if (*p != ' ') return false;
    }
    return true;
}

std::string cleanPathName(const std::string& name) {
    std::string s = name;
    for (char& c : s) {
        if (c == '/' || static_cast<unsigned char>(c) < 32) c = '_';
    }
    if (!s.empty() && s[0] == '.') s[0] = '_';
    if (s == "_.") s = "__";
    return s;
}
