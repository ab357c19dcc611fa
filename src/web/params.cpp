#include "web/params.h"

#include <cstring>

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void strip(char* dst, const char* src, size_t size, bool stopAtAmpersand) {
    size_t n = 0;
    while (*src && n + 1 < size && !(stopAtAmpersand && *src == '&')) {
        int hi, lo;
        if (*src == '%' && (hi = hexValue(src[1])) >= 0 && (lo = hexValue(src[2])) >= 0) {
            dst[n++] = static_cast<char>(hi * 16 + lo);
            src += 3;
        } else {
            dst[n++] = *src++;
        }
    }
    dst[n] = 0;
}

}  // namespace

void stripPercentagesFromURL(char* dst, const char* src, size_t size) {
    strip(dst, src, size, true);
}

void stripPercentagesFromURLTail(char* dst, const char* src, size_t size) {
    strip(dst, src, size, false);
}

std::string stripPercentagesFromLine(const char* src) {
    char out[200];
    stripPercentagesFromURL(out, src, sizeof out);
    return out;
}

const char* findParameter(const char* uri, const char* name) {
    const char* at = strstr(uri, name);
    return at ? at + strlen(name) : nullptr;
}
