// Feeds arbitrary request URIs to the web command set over a small library
// whose names hold quotes, backslashes, control characters and UTF-8, and
// holds every reply that claims to be JSON to a strict reader: a reply the
// page cannot parse ends the run with the URI and the reply on stderr.
//
// The daemon runs in host mode inside a scratch root, with /bin/false as its
// decoder, so play commands start and end a child at once. Requests that
// would end the process (kTubeDebug), flush every disk of the machine
// (allStop) or start a CD rip are left out; the library is rebuilt after any
// request that changed it, so each input meets the same names.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/log.h"
#include "core/paths.h"
#include "library/library.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/playback.h"
#include "tests/unit/hostile_library.h"
#include "tests/unit/json_check.h"
#include "web/commands.h"
#include "web/fastcgi.h"
#include "web/web.h"

namespace fs = std::filesystem;

namespace {

struct Fingerprint {
    int tracks, albums, artists, usbTracks;
    size_t heaps;
    bool operator==(const Fingerprint&) const = default;
};

Fingerprint fingerprint() {
    const Library& l = lib();
    return {getTrackCount(), getAlbumCount(), getArtistCount(), getUSBTrackcount(),
            l.local.trackHeap.used() + l.local.albumHeap.used() + l.local.artistHeap.used() +
                l.usb.trackHeap.used()};
}

Fingerprint built;

void buildLibrary() {
    hostile::makeFiles(getMusicDirectory());
    clearDB();
    scanLocalEnabled = 1;
    scanDB();
    scanLocalEnabled = 0;
    hostile::addUnscannable(getMusicDirectory());
    hostile::addUsb();
    lib().dirtybit = 0;
    built = fingerprint();
}

bool setUp() {
    char dir[] = "/tmp/kz-dispatch-fuzz-XXXXXX";
    if (!mkdtemp(dir)) abort();
    if (!freopen("/dev/null", "w", stdout)) abort();
    setenv("KZ_ROOT", dir, 1);
    setenv("KZ_FFMPEG", "/bin/false", 1);
    setenv("KZ_PCM", "null", 1);
    if (!configureHostMode()) abort();
    initWebDebug();
    resetSettings();
    initmdb(dir);
    buildLibrary();
    if (getTrackCount() != hostile::kTrackCount) {
        fprintf(stderr, "the scan found %d of %d tracks\n", getTrackCount(), hostile::kTrackCount);
        abort();
    }
    initPipe();
    initWeb();
    // The listener reads the root's path as it starts: a run of one input
    // must not end before it has, or the exit frees that text under it.
    for (int i = 0; i < 5000 && !fs::exists(webSocketPath()); i++)
        usleep(1000);
    return true;
}

bool leftOut(const std::string& uri) {
    for (const char* word : {"kTubeDebug", "allStop", "rip"}) {
        if (uri.find(word) != std::string::npos) return true;
    }
    return false;
}

void printEscaped(const char* label, std::string_view text) {
    fprintf(stderr, "%s (%zu bytes): \"", label, text.size());
    for (unsigned char c : text.substr(0, 2000)) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            fputc(c, stderr);
        } else {
            fprintf(stderr, "\\x%02x", c);
        }
    }
    fprintf(stderr, "%s\"\n", text.size() > 2000 ? "..." : "");
}

[[noreturn]] void fail(const char* why, const std::string& uri, std::string_view reply, size_t at) {
    fprintf(stderr, "\n%s at byte %zu\n", why, at);
    printEscaped("uri", uri);
    printEscaped("reply", reply);
    abort();
}

// Waits out a rescan started by the request; it rebuilds from the same files.
void settle() {
    for (int i = 0; i < 10000 && isScanning(); i++)
        usleep(1000);
    deleteZombies();
    if (isDirty() || !(fingerprint() == built)) buildLibrary();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = setUp();
    (void)ready;
    // The URI reaches the commands as the FastCGI reader keeps it: a C
    // string of at most kFcgiParamSize - 1 bytes.
    size_t n = strnlen(reinterpret_cast<const char*>(data), size);
    std::string uri(reinterpret_cast<const char*>(data),
                    std::min(n, static_cast<size_t>(kFcgiParamSize - 1)));
    if (leftOut(uri)) return 0;

    // One known line in the debug ring, so getWebDebug answers plain text.
    webDebugRing().reset();
    kzLog("dispatch fuzz\n");

    FcgiReply reply;
    webDispatch(uri.c_str(), &reply);
    if (!reply.text) fail("no reply", uri, "", 0);
    if (!reply.blob && !reply.file) {
        std::string_view text(reply.text);
        if (json_check::claimsJson(text)) {
            size_t at = json_check::jsonFault(text);
            if (at != std::string_view::npos) fail("reply is not JSON", uri, text, at);
            if (text[0] == '[' && text.size() > 59999) fail("list too long", uri, text, 59999);
        }
    }
    settle();
    return 0;
}
