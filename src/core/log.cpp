#include "core/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>
#include <time.h>

#include <cstring>

#include "library/settings.h"

int logging = 0;
int verbose = 0;

WebDebugRing::WebDebugRing() : buffer_(new char[kSize]) {
    bottom_ = buffer_.get();
    top_ = bottom_ + kSize;
    write_ = read_ = bottom_;
}

void WebDebugRing::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    write_ = read_ = bottom_;
    length_ = 0;
}

size_t WebDebugRing::length() {
    std::lock_guard<std::mutex> g(mutex_);
    return length_;
}

int WebDebugRing::getLine(char* out) {
    std::lock_guard<std::mutex> g(mutex_);
    return getLineLocked(out);
}

int WebDebugRing::getLineLocked(char* out) {
    int n = 0;
    while (length_ > 0 && n < kLineMax) {
        char c = *read_++;
        if (read_ >= top_) read_ = bottom_;
        length_--;
        if (c == '\n') break;
        out[n++] = c;
    }
    out[n] = 0;
    return n;
}

void WebDebugRing::put(std::string_view text) {
    if (text.size() > kSize) text = text.substr(text.size() - kSize);
    // Making room and writing happen under one lock, so that two threads
    // logging at once can never overrun the reader.
    std::lock_guard<std::mutex> g(mutex_);
    char scratch[kLineMax + 1];
    while (length_ + text.size() > kSize)
        getLineLocked(scratch);
    for (char c : text) {
        *write_++ = c;
        if (write_ >= top_) write_ = bottom_;
    }
    length_ += text.size();
}

WebDebugRing& webDebugRing() {
    // Never destroyed: other threads may still use it while the process ends.
    static WebDebugRing& ring = *new WebDebugRing;
    return ring;
}

void initWebDebug() {
    webDebugRing().reset();
}

void stringToWebDebug(const char* text) {
    webDebugRing().put(text);
}

int getWebDebugLine(char* out) {
    return webDebugRing().getLine(out);
}

void initLogging() {
    logging = 1;
    openlog("KZ", 0, LOG_USER);
}

namespace {

void vlog(const char* format, va_list args) {
    char cut[WebDebugRing::kLineMax + 1];
    va_list copy;
    va_copy(copy, args);
    int full = vsnprintf(cut, sizeof cut, format, copy);
    va_end(copy);
    if (full < 0) return;

    // Standard output and syslog get the whole text; the ring keeps it short.
    std::unique_ptr<char[]> longText;
    const char* text = cut;
    if (static_cast<size_t>(full) >= sizeof cut) {
        longText.reset(new char[full + 1]);
        vsnprintf(longText.get(), full + 1, format, args);
        text = longText.get();
    }
    if (!isTVUIEnabled()) fputs(text, stdout);
    if (logging && getLoggingMode() == 1) syslog(LOG_INFO, "%s", text);
    webDebugRing().put(cut);
}

long long wallMs() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

long long stopwatchStart = 0;

}  // namespace

void kzLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vlog(format, args);
    va_end(args);
}

void kzInfo(const char* format, ...) {
    if (!verbose) return;
    va_list args;
    va_start(args, format);
    vlog(format, args);
    va_end(args);
}

void startStopwatch() {
    stopwatchStart = wallMs();
}

void stopwatch(const char* label) {
    kzLog("%s at %d ms\n", label, static_cast<int>(wallMs() - stopwatchStart));
}
