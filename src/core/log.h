// The daemon's log: standard output, syslog (when the logging setting asks for
// it) and a ring of recent text that the web page can read back line by line.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>

// A byte ring of raw log text. When new text does not fit, whole lines are
// dropped from the old end until it does.
class WebDebugRing {
  public:
    static constexpr size_t kSize = 100000;
    // The longest piece getLine() hands out; its buffer needs one more byte.
    static constexpr int kLineMax = 199;

    WebDebugRing();
    WebDebugRing(const WebDebugRing&) = delete;
    WebDebugRing& operator=(const WebDebugRing&) = delete;

    // Empties the ring (both pointers to the bottom, nothing held).
    void reset();
    // stringToWebDebug
    void put(std::string_view text);
    // getWebDebugLine: copies the oldest line (without its "\n", at most 199
    // bytes) into out, which must hold kLineMax + 1 bytes; returns its length.
    int getLine(char* out);
    size_t length();

  private:
    int getLineLocked(char* out);

    std::unique_ptr<char[]> buffer_;
    char* bottom_;
    char* top_;
    char* write_;
    char* read_;
    size_t length_ = 0;
    std::mutex mutex_;
};

// The process-wide ring read by the web interface.
WebDebugRing& webDebugRing();
void initWebDebug();
void stringToWebDebug(const char* text);
int getWebDebugLine(char* out);

// initLogging: opens syslog under "KZ"; from then on kzLog also goes to
// syslog whenever the logging setting is 1.
void initLogging();
extern int logging;
// When 0 (the default), kzInfo writes nothing. KZ_VERBOSE=1 sets it at start.
extern int verbose;

void kzLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void kzInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

void startStopwatch();
// Logs "<label> at <ms> ms" with the wall-clock milliseconds since startStopwatch.
void stopwatch(const char* label);
