#include "core/paths.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <set>

#include "core/log.h"

namespace {

struct HostConfig {
    std::string root;
    std::string cdrom;
    std::string pcm;
    std::string ffmpeg;
};

HostConfig& config() {
    static HostConfig c;
    return c;
}

std::mutex skipMutex;
std::set<std::string, std::less<>> skipped;

std::string envOr(const char* name, const char* fallback) {
    const char* v = getenv(name);
    return (v && *v) ? v : fallback;
}

}  // namespace

int configureHostMode() {
    HostConfig& c = config();
    c.cdrom = envOr("KZ_CDROM", "");
    c.pcm = envOr("KZ_PCM", "default");
    c.ffmpeg = envOr("KZ_FFMPEG", "/usr/bin/ffmpeg");
    c.root.clear();
    const char* set = getenv("KZ_ROOT");
    if (set && !*set) {
        // Set but empty is a mistake in a script, not a wish to run as the
        // appliance on this machine's own /media and /var.
        kzLog("KZ_ROOT is set but empty\n");
        return 0;
    }
    std::string root = envOr("KZ_ROOT", "");
    if (root.empty()) return 1;

    struct stat st;
    char resolved[PATH_MAX];
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        realpath(root.c_str(), resolved) == nullptr) {
        kzLog("KZ_ROOT %s is not a folder\n", root.c_str());
        return 0;
    }
    // Writing a file is the only test that also holds for root and for
    // read-only mounts.
    std::string probe = std::string(resolved) + "/.kz-write-test-XXXXXX";
    int fd = mkstemp(probe.data());
    if (fd < 0) {
        kzLog("KZ_ROOT %s is not writable\n", resolved);
        return 0;
    }
    close(fd);
    unlink(probe.c_str());
    c.root = resolved;
    if (c.root == "/") c.root.clear();
    return 1;
}

void setHostRoot(const std::string& root) {
    HostConfig& c = config();
    c.root = root;
    c.cdrom.clear();
    c.pcm = "default";
    c.ffmpeg = "/usr/bin/ffmpeg";
    std::lock_guard<std::mutex> g(skipMutex);
    skipped.clear();
}

void setHostCdrom(const std::string& path) {
    config().cdrom = path;
}

bool isHostMode() {
    return !config().root.empty();
}

const std::string& hostRoot() {
    return config().root;
}

std::string hostPath(std::string_view fixed) {
    const std::string& root = config().root;
    if (root.empty() || fixed.empty() || fixed.front() != '/') return std::string(fixed);
    std::string p = root;
    p += fixed;
    return p;
}

std::string cdDevicePath() {
    const HostConfig& c = config();
    return c.cdrom.empty() ? hostPath("/dev/sr0") : c.cdrom;
}

std::string pcmDevice() {
    return config().pcm.empty() ? "default" : config().pcm;
}

std::string ffmpegPath() {
    return config().ffmpeg.empty() ? "/usr/bin/ffmpeg" : config().ffmpeg;
}

std::string ffprobePath() {
    std::string prober = ffmpegPath();
    size_t slash = prober.rfind('/');
    prober = (slash == std::string::npos ? std::string() : prober.substr(0, slash + 1)) + "ffprobe";
    if (access(prober.c_str(), X_OK) != 0) prober = "/usr/bin/ffprobe";
    return prober;
}

void hostSkip(std::string_view what) {
    {
        std::lock_guard<std::mutex> g(skipMutex);
        if (!skipped.emplace(what).second) return;
    }
    kzLog("Host mode: skipped %.*s\n", static_cast<int>(what.size()), what.data());
}
