#include "web/web.h"

#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "core/appliance.h"
#include "core/events.h"
#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "core/ui.h"
#include "library/library.h"
#include "library/names.h"
#include "playback/control.h"
#include "playback/playback.h"
#include "playback/resample.h"
#include "playback/smartbuffer.h"
#include "ripping/lookup.h"
#include "ripping/ripper.h"
#include "web/commands.h"
#include "web/params.h"
#include "web/upload.h"

std::atomic<int> getWebSamplesEnabled{0};
std::atomic<int> getWebSamplesRunning{0};

namespace {

std::atomic<int> fwthreadEnabled{0};
std::atomic<int> listenFd{-1};
std::atomic<int> forceWebRefresh{1};
std::mutex queueMutex;
std::mutex alertMutex;
std::string webAlertMessage;
// When the alert goes away by itself; the epoch when it stays.
std::chrono::steady_clock::time_point webAlertEnd;

// Everything a request needs, allocated once.
struct WebState {
    uint8_t fastDataBuffer[kFcgiBufferSize];
    char jsonReply[kFcgiBufferSize];
    FcgiParams params;
    StdinParser stdinParser;
};
std::unique_ptr<WebState> web;
std::unique_ptr<SmartBuffer> webBuffer;
Upsampler webUpsampler;  // the output thread's alone
std::mutex titleMutex;
std::string webTitle;

long freeKilobytes() {
    struct statvfs vfs;
    if (statvfs(getLocalPath().c_str(), &vfs) != 0) return 0;
    return static_cast<long>(static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize / 1024);
}

void webGetWebDebug(FcgiReply* reply) {
    char* out = web->jsonReply;
    size_t used = 0;
    char line[WebDebugRing::kLineMax + 1];
    // Stops short of the reply's limit; what is left stays for the next call.
    while (used < 59999 - sizeof line && webDebugRing().length() > 0) {
        int n = getWebDebugLine(line);
        memcpy(out + used, line, static_cast<size_t>(n));
        used += static_cast<size_t>(n);
        out[used++] = '\n';
    }
    out[used] = 0;
    reply->text = out;
}

void webUpload(const char* uri, FcgiReply* reply) {
    markUploadUnderWay();
    const char* value = findParameter(uri, "&artist=");
    if (!value) {
        reply->text = "\"NG\"";
        return;
    }
    std::string artist = cleanPathName(stripPercentagesFromLine(value));
    if (isPlaying()) {
        kzLog("stopPlay in webUpload to prevent breakup\n");
        stopPlay();
    }
    web->stdinParser.armUpload(artist);
    snprintf(web->jsonReply, sizeof web->jsonReply, "%ld", freeKilobytes());
    reply->text = web->jsonReply;
}

// Two falling notes that tell the listener the browser is now connected,
// heard ahead of the stream's own audio.
void putChime() {
    constexpr int kRate = 44100;
    constexpr double kNotes[] = {1318.5, 1046.5};
    constexpr int kNoteFrames = kRate * 22 / 100;
    std::vector<int16_t> frames(2 * kNoteFrames * 2);
    for (int n = 0; n < 2; n++) {
        for (int i = 0; i < kNoteFrames; i++) {
            double t = static_cast<double>(i) / kRate;
            double fadeIn = std::min(1.0, i / 200.0);
            double v = 6000.0 * fadeIn * std::exp(-t * 9.0) * std::sin(2 * M_PI * kNotes[n] * t);
            int16_t s = static_cast<int16_t>(v);
            frames[2 * (n * kNoteFrames + i)] = s;
            frames[2 * (n * kNoteFrames + i) + 1] = s;
        }
    }
    webBuffer->dumbPut(2 * kNoteFrames, frames.data());
}

void webStartWebAudio(const char* uri, FcgiReply* reply) {
    const char* value = findParameter(uri, "&buffer=");
    int latency = value ? atoi(value) : 1000;
    web->stdinParser.latencyMs = latency > 0 ? latency : 1000;
    webBuffer->clear();
    putChime();
    web->stdinParser.audioRunning = false;
    getWebSamplesRunning = 0;
    getWebSamplesEnabled = 1;
    selectWeb();
    reply->text = "\"OK\"";
}

void webStopWebAudio(FcgiReply* reply) {
    getWebSamplesEnabled = 0;
    getWebSamplesRunning = 0;
    webBuffer->clear();
    stopPlay();
    selectHDD();
    reply->text = "\"OK\"";
}

void webBlob(const char* uri, FcgiReply* reply) {
    const char* value = findParameter(uri, "&title=");
    char title[200] = "";
    if (value) stripPercentagesFromURL(title, value, sizeof title);
    {
        std::lock_guard<std::mutex> g(titleMutex);
        if (webTitle != title) {
            webTitle = title;
            refreshUI();
        }
    }
    web->stdinParser.armAudio();
    reply->text = getWebSamplesEnabled ? "\"OK\"" : "\"Stopped\"";
}

// Starts the rip ("newRip") or renames the album ripped from this disc
// ("reindex") with the names in the metadata file.
void startFromRipMetadata(bool newRip) {
    RipNames names;
    if (!readRipMetadata(hostPath("/tmp/ripMetadata"), &names)) return;
    // Typed names are the best there are for this disc: kept for next time.
    rememberTypedNames(names);
    if (newRip) {
        setUploadedRipNames(names);
        ripUserChoice = -1;
        startRip();
    } else {
        // Rewriting every track's file takes a while: not on the listener,
        // which the pages keep polling.
        try {
            std::thread([names] { reindexAlbum(names); }).detach();
        } catch (const std::system_error&) {
            kzLog("reindex failed to create its thread\n");
        }
    }
}

// The page sends the names as the request's body, kept as the metadata file
// once the body is whole; without a body the file already there is used.
void webRipWithNames(bool newRip, FcgiReply* reply) {
    if (web->params.contentLength > 0) {
        web->stdinParser.armText([newRip](const std::string& text) {
            std::string path = hostPath("/tmp/ripMetadata");
            bool ok = writeFileAtomically(path, [&text](FILE* f) {
                return fwrite(text.data(), 1, text.size(), f) == text.size();
            });
            if (!ok) kzLog("Cannot write %s\n", path.c_str());
            startFromRipMetadata(newRip);
        });
    } else {
        startFromRipMetadata(newRip);
    }
    reply->text = "\"OK\"";
}

void webCheckUpload(FcgiReply* reply) {
    if (web->stdinParser.uploadFailed) {
        kzLog("webCheckUpload () reporting false\n");
        web->stdinParser.uploadFailed = false;
        reply->text = "false";
    } else {
        reply->text = "true";
    }
}

void listener() {
    kzLog("testWebThread () started\n");
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        kzLog("Could not create socket");
        return;
    }
    std::string path = webSocketPath();
    // A fresh host root has no /var/run yet. A folder that cannot be made
    // (a read-only root, a root removed under us) shows as the bind failure.
    if (isHostMode()) {
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        kzLog("testWebThread bind failed %d %s\n", errno, strerror(errno));
        close(s);
        return;
    }
    kzLog("fastUnixSocket bind done\n");
    // Browsers poll the status every few hundred milliseconds: with a short
    // queue, a burst from a few of them through lighttpd is refused.
    if (listen(s, 64) != 0) {
        kzLog("listen failed in testWebThread()\n");
        close(s);
        return;
    }
    listenFd = s;
    kzLog("Waiting for incoming connections on socket\n");
    while (fwthreadEnabled) {
        int c = accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
        if (c == 0) break;
        if (c < 0) {
            if (!fwthreadEnabled) break;
            continue;
        }
        // A client that stops sending, or stops reading its reply, must not
        // hold the only listener for long.
        timeval timeout = {5, 0};
        setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setsockopt(c, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        fastConnectionHandler(c);
        close(c);
    }
}

}  // namespace

std::string webSocketPath() {
    return hostPath("/var/run/fastCgiUnixSocket");
}

void initWeb() {
    if (web) return;
    web = std::make_unique<WebState>();
    webBuffer = std::make_unique<SmartBuffer>(kWebBufferSlots);
    StdinParser::AudioSink& sink = web->stdinParser.audio;
    sink.enabled = [] { return getWebSamplesEnabled != 0; };
    sink.put = [](const uint8_t* frames, int count) { webBuffer->dumbPut(count, frames); };
    sink.held = [] { return webBuffer->used(); };
    sink.capacity = kWebBufferSlots;
    fwthreadEnabled = 1;
    try {
        std::thread([] {
            nameThread("kz-web");
            listener();
        }).detach();
    } catch (const std::system_error&) {
        kzLog("initWeb failed to create fastWebThread\n");
        web.reset();
        fwthreadEnabled = 0;
    }
}

void closeWeb() {
    fwthreadEnabled = 0;
    kzLog("Closing web sockets\n");
    int s = listenFd.exchange(-1);
    if (s >= 0) {
        shutdown(s, SHUT_RDWR);
        close(s);
    }
    kzLog("closeWeb () done\n");
}

void fastConnectionHandler(int fd) {
    WebState& w = *web;
    w.params = FcgiParams();
    FcgiReply reply;
    bool deferred = false;
    std::string deferredText;
    int length = 0;
    auto requestTime = [] { return std::chrono::steady_clock::now() + std::chrono::seconds(5); };
    setFcgiReceiveDeadline(requestTime());
    while (fwthreadEnabled) {
        int type = getFcgiRecord(fd, w.fastDataBuffer, &length);
        if (type == 0) break;
        if (type == FCGI_PARAMS && length > 0) {
            parseFcgiParams(w.fastDataBuffer, length, &w.params);
        } else if (type == FCGI_PARAMS) {
            reply = FcgiReply();
            webDispatch(w.params.requestUri, &reply);
            if (w.params.contentLength > 0) {
                // The web server stops forwarding a body once the reply has
                // ended: answer only after the whole body has come. A body
                // (an upload, browser audio) may take long: from here only
                // each receive is timed.
                setFcgiReceiveDeadline(std::chrono::steady_clock::time_point::max());
                deferred = true;
                deferredText = reply.blob ? std::string(reply.text, reply.blobLength) : reply.text;
            } else {
                fcgiReply2(fd, reply);
                setFcgiReceiveDeadline(requestTime());
            }
        } else if (type == FCGI_STDIN) {
            if (w.stdinParser.receivingFiles()) markUploadUnderWay();
            w.stdinParser.process(w.fastDataBuffer, length);
            if (w.stdinParser.audioRunning) getWebSamplesRunning = 1;
            if (length == 0 && deferred) {
                deferred = false;
                reply.text = deferredText.c_str();
                fcgiReply2(fd, reply);
                setFcgiReceiveDeadline(requestTime());
            }
        }
    }
    setFcgiReceiveDeadline(std::chrono::steady_clock::time_point::max());
    w.stdinParser.connectionEnded();
}

void webTransportCommand(const char* uri, const char* from, FcgiReply* reply) {
    if (strncmp(from, "startWebAudio", 13) == 0) {
        webStartWebAudio(uri, reply);
    } else if (strncmp(from, "stopWebAudio", 12) == 0) {
        webStopWebAudio(reply);
    } else if (strncmp(from, "blob", 4) == 0) {
        webBlob(uri, reply);
    } else if (strncmp(from, "getWebDebug", 11) == 0) {
        webGetWebDebug(reply);
    } else if (strncmp(from, "upload", 6) == 0) {
        webUpload(uri, reply);
    } else if (strncmp(from, "checkUpload", 11) == 0) {
        webCheckUpload(reply);
    } else if (strncmp(from, "reindex", 7) == 0 || strncmp(from, "newRip", 6) == 0) {
        webRipWithNames(from[0] == 'n', reply);
    }
}

bool getWebSamples(int16_t* dest, int frames) {
    if (!getWebSamplesRunning || !webBuffer) return false;
    // Ran dry: the buffer starts again empty, and this period is silence.
    if (!webBuffer->dumbGet(frames, dest)) {
        for (int i = 0; i < frames * 2; i++)
            dest[i] = 1;
    }
    return true;
}

bool getWebSamples(int32_t* dest, int frames) {
    if (!getWebSamplesRunning || !webBuffer) return false;
    // A browser may send 48000 Hz: stepped through as if it were 44100 it
    // would play fast and high.
    int rate = web->stdinParser.sampleRate;
    webUpsampler.setRates(rate >= 8000 && rate <= 192000 ? rate : 44100, 96000);
    bool dry = false;
    webUpsampler.pull(dest, frames, [&dry](int16_t* d, int n) {
        dry = !webBuffer->dumbGet(n, d);
        return dry ? 0 : n;
    });
    if (dry) {
        // The idle value: 16-bit words of 1, two to a 32-bit sample.
        for (int i = 0; i < frames * 2; i++)
            dest[i] = 0x00010001;
        webUpsampler.reset();
    }
    return true;
}

std::string getWebTitle() {
    std::lock_guard<std::mutex> g(titleMutex);
    return webTitle.empty() ? "Browser" : webTitle;
}

void wakeAndAddEvent(int code) {
    addEvent(80);
    addEvent(code);
}

void webAlert(const char* text) {
    webAlertFor(text, 0);
}

void webAlertFor(const char* text, int seconds) {
    std::lock_guard<std::mutex> g(alertMutex);
    webAlertMessage = text;
    webAlertEnd = seconds > 0 ? std::chrono::steady_clock::now() + std::chrono::seconds(seconds)
                              : std::chrono::steady_clock::time_point();
}

std::string getWebAlert() {
    std::lock_guard<std::mutex> g(alertMutex);
    if (webAlertEnd != std::chrono::steady_clock::time_point() &&
        std::chrono::steady_clock::now() > webAlertEnd) {
        webAlertMessage.clear();
        webAlertEnd = {};
    }
    return webAlertMessage;
}

void lockQueue() {
    queueMutex.lock();
}
void unlockQueue() {
    queueMutex.unlock();
}
void webClientsRefresh() {
    forceWebRefresh = 1;
}
bool webRefreshRequested() {
    // A library change (a rip, an upload, a rename, a scan) since the last
    // report asks the pages to reload their lists too.
    static std::atomic<int> reported{0};
    int now = libraryGeneration();
    bool changed = reported.exchange(now) != now;
    return (forceWebRefresh.exchange(0) != 0) || changed;
}
