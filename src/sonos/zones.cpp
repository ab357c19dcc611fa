#include "sonos/zones.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include "core/events.h"
#include "core/http.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/names.h"
#include "library/playlists.h"
#include "library/sorting.h"
#include "sonos/upnp.h"
#include "web/status.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSearchEvery = std::chrono::minutes(5);
constexpr auto kPollEvery = std::chrono::seconds(1);
constexpr auto kPollUnreachableEvery = std::chrono::seconds(15);
constexpr int kSoapSeconds = 4;
// A track that has not begun to play by then is given up for the next one.
constexpr auto kStartLimit = std::chrono::seconds(15);
// A description is a few kilobytes; anything near this is not one.
constexpr size_t kMaxDescription = 512 * 1024;
constexpr size_t kMaxSoapAnswer = 256 * 1024;
constexpr size_t kMaxZones = 64;
constexpr size_t kMaxListed = 20000;

// A track as it was when the pages chose it: a rescan in between cannot
// turn it into another one.
struct Entry {
    std::string relative;  // below the library's folder, "/music/A/B/01 x.flac"
    std::string title, artist, album;
    int albumId = -1;
};

struct Zone {
    std::string key;  // the UDN, or the description's address without one
    std::string name, location, avTransport, renderingControl;
    bool reachable = true;
    std::string state;
    int volume = -1;
    std::string uri;
    // kz's list on this zone, and the place in it.
    std::vector<Entry> list;
    int current = -1;
    size_t queueEnd = 0;  // just after the last queued entry
    std::string sentUri, sentTitle;
    bool sawPlaying = false;
    bool progressed = false;  // its clock has moved since the track was sent
    Clock::time_point sentAt{};
    bool stoppedByUser = false;
    Clock::time_point nextPoll{};
};

struct Zones {
    std::mutex m;
    // Wakes the thread for a job, a search or a reset. The thread sleeps in
    // poll() beside the announcement socket until one of them or its next
    // due time: a 250 ms tick woke it four times a second for nothing.
    int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::deque<std::function<void()>> jobs;
    std::vector<Zone> zones;
    std::string inUse;
    bool searchNow = true;
    bool forget = false;
    bool started = false;
    std::string lastSearchProblem;
};

std::string webServerSetting(const char* name);

Zones& Z() {
    // Never destroyed: the thread may outlive the end of main.
    static Zones& z = *new Zones;
    return z;
}

void wakeZones() {
    uint64_t one = 1;
    if (Z().wakeFd >= 0 && write(Z().wakeFd, &one, sizeof one) < 0) {
        // The counter is already non-zero: the thread will wake anyway.
    }
}

Zone* byKey(const std::string& key) {
    for (Zone& z : Z().zones)
        if (z.key == key) return &z;
    return nullptr;
}

SoapAnswer soap(const std::string& url, const char* service, const char* action,
                const SoapArgs& args) {
    std::vector<std::string> headers = {
        "Content-Type: text/xml; charset=\"utf-8\"",
        std::string("SOAPACTION: \"") + service + "#" + action + "\"",
        // Some renderers never answer "100 Continue".
        "Expect:",
    };
    HttpResult r =
        httpPost(url, soapEnvelope(service, action, args), headers, kSoapSeconds, kMaxSoapAnswer);
    if (!r.error.empty()) {
        SoapAnswer a;
        a.fault = r.error;
        return a;
    }
    return parseSoapAnswer(r.body, r.status, action);
}

// The address of this machine on the way to host: what the renderer must
// fetch from.
std::string localAddressFor(const std::string& host) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(1900);
    if (inet_pton(AF_INET, host.c_str(), &peer.sin_addr) != 1) return "";
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "";
    sockaddr_in self{};
    socklen_t len = sizeof self;
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof peer) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr*>(&self), &len) == 0;
    close(fd);
    char text[INET_ADDRSTRLEN] = "";
    if (!ok || !inet_ntop(AF_INET, &self.sin_addr, text, sizeof text)) return "";
    return text;
}

const char* mimeOf(const std::string& name) {
    std::string ext =
        name.substr(name.rfind('.') == std::string::npos ? name.size() : name.rfind('.'));
    for (char& c : ext)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (ext == ".flac") return "audio/flac";
    if (ext == ".mp3") return "audio/mpeg";
    if (ext == ".wav") return "audio/wav";
    if (ext == ".m4a") return "audio/mp4";
    if (ext == ".ogg") return "audio/ogg";
    return "application/octet-stream";
}

// ---- discovery -------------------------------------------------------------

void describe(const std::vector<SsdpReply>& replies) {
    std::set<std::string> seen;
    for (const SsdpReply& r : replies) {
        if (!seen.insert(r.location).second) continue;
        HttpResult got = httpGet(r.location, 3, kMaxDescription);
        DeviceDescription d;
        std::string why = got.error;
        if (why.empty() && got.status != 200) why = "HTTP " + std::to_string(got.status);
        if (why.empty() && !parseDeviceDescription(got.body, r.location, d, why)) {
            // A media server or a bridge answers too; only renderers count.
        }
        if (!why.empty()) {
            kzLog("UPnP: description at %s unusable: %s\n", r.location.c_str(), why.c_str());
            continue;
        }
        std::string key = d.udn.empty() ? r.location : d.udn;
        std::lock_guard<std::mutex> g(Z().m);
        Zone* z = byKey(key);
        if (!z) {
            if (Z().zones.size() >= kMaxZones) continue;
            Z().zones.push_back(Zone{});
            z = &Z().zones.back();
            z->key = key;
            kzLog("UPnP zone %d: %s at %s\n", static_cast<int>(Z().zones.size()),
                  d.zoneName().c_str(), r.location.c_str());
            addEvent(99);
        }
        z->name = d.zoneName();
        z->location = r.location;
        z->avTransport = d.avTransport;
        z->renderingControl = d.renderingControl;
        if (!z->reachable) z->nextPoll = Clock::now();
    }
}

// Each renderer is described as soon as it answers, not after the wait.
void search() {
    std::set<std::string> described;
    std::string problem;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        problem = strerror(errno);
    } else {
        unsigned char ttl = 2;
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
        sockaddr_in group{};
        group.sin_family = AF_INET;
        group.sin_port = htons(1900);
        inet_pton(AF_INET, "239.255.255.250", &group.sin_addr);
        for (const char* target : {kMediaRendererType, kZonePlayerType}) {
            std::string text = ssdpSearchText(target);
            if (sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&group),
                       sizeof group) < 0) {
                problem = strerror(errno);
                break;
            }
        }
        // Renderers answer within MX (2) seconds.
        auto until = Clock::now() + std::chrono::milliseconds(2500);
        while (problem.empty()) {
            int left = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now())
                    .count());
            if (left <= 0) break;
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, left) <= 0) break;
            char buffer[2048];
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) continue;
            SsdpReply reply;
            if (parseSsdpReply(std::string_view(buffer, static_cast<size_t>(n)), reply) &&
                described.size() < 256 && described.insert(reply.location).second) {
                describe({reply});
            }
        }
        close(fd);
    }
    // One line when searching stops working or works again, not one a scan.
    std::lock_guard<std::mutex> g(Z().m);
    if (problem != Z().lastSearchProblem) {
        if (problem.empty())
            kzLog("UPnP: searching for renderers works again\n");
        else
            kzLog("UPnP: cannot search for renderers (no multicast?): %s\n", problem.c_str());
        Z().lastSearchProblem = problem;
    }
}

// Renderers announce themselves when they start and now and then after:
// listening catches one that came up after the last search. Without the
// port (another program holds it alone) the searches still find them.
int openAnnouncements() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(1900);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    ip_mreq group{};
    inet_pton(AF_INET, "239.255.255.250", &group.imr_multiaddr);
    group.imr_interface.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
        kzLog("UPnP: not listening for announcements: %s\n", strerror(errno));
        close(fd);
        return -1;
    }
    return fd;
}

// The announcements of renderers kz does not know yet.
std::vector<SsdpReply> announcements(int fd) {
    std::vector<SsdpReply> found;
    char buffer[2048];
    for (int i = 0; fd >= 0 && i < 64; i++) {
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        SsdpReply r;
        if (!parseSsdpReply(std::string_view(buffer, static_cast<size_t>(n)), r)) continue;
        if (r.st != kMediaRendererType && r.st != kZonePlayerType) continue;
        std::lock_guard<std::mutex> g(Z().m);
        bool known = false;
        for (const Zone& z : Z().zones)
            known = known || (z.location == r.location && z.reachable);
        if (!known) found.push_back(r);
    }
    return found;
}

// ---- playing ---------------------------------------------------------------

void sendEntry(const std::string& key, int index) {
    std::string avTransport, location, name;
    Entry e;
    {
        std::lock_guard<std::mutex> g(Z().m);
        Zone* z = byKey(key);
        if (!z || index < 0 || index >= static_cast<int>(z->list.size())) return;
        z->current = index;
        if (static_cast<size_t>(index) >= z->queueEnd) z->queueEnd = 0;
        z->sawPlaying = false;
        z->progressed = false;
        z->sentAt = Clock::now();
        z->stoppedByUser = false;
        e = z->list[static_cast<size_t>(index)];
        avTransport = z->avTransport;
        location = z->location;
        name = z->name;
    }
    // A web server bound to one address is reached there and nowhere else.
    std::string self = webServerSetting("server.bind");
    in_addr bound{};
    if (inet_pton(AF_INET, self.c_str(), &bound) != 1 || bound.s_addr == htonl(INADDR_ANY))
        self = localAddressFor(urlHost(location));
    if (self.empty()) {
        kzLog("UPnP zone %s: no address of this box on its way\n", name.c_str());
        return;
    }
    std::string origin = "http://" + self + ":" + std::to_string(webServerPort());
    TrackMetadata t;
    t.title = e.title;
    t.artist = e.artist;
    t.album = e.album;
    t.url = origin + "/hdd1" + percentEncode(e.relative, true);
    t.mime = mimeOf(e.relative);
    if (e.albumId >= 0) t.artUrl = origin + "/api/getAlbumArt&id=" + std::to_string(e.albumId);
    {
        std::lock_guard<std::mutex> g(Z().m);
        if (Zone* z = byKey(key)) {
            z->sentUri = t.url;
            z->sentTitle = t.title;
        }
    }
    kzLog("UPnP zone %s: playing %s\n", name.c_str(), t.url.c_str());
    SoapAnswer a =
        soap(avTransport, kAVTransportType, "SetAVTransportURI",
             {{"InstanceID", "0"}, {"CurrentURI", t.url}, {"CurrentURIMetaData", didlLite(t)}});
    if (a.ok)
        a = soap(avTransport, kAVTransportType, "Play", {{"InstanceID", "0"}, {"Speed", "1"}});
    if (!a.ok) kzLog("UPnP zone %s refused the track: %s\n", name.c_str(), a.fault.c_str());
    std::lock_guard<std::mutex> g(Z().m);
    if (Zone* z = byKey(key)) z->nextPoll = Clock::now() + std::chrono::milliseconds(300);
}

void plainAction(const std::string& key, const char* action, const SoapArgs& args,
                 bool rendering = false) {
    std::string url, name;
    {
        std::lock_guard<std::mutex> g(Z().m);
        Zone* z = byKey(key);
        if (!z) return;
        url = rendering ? z->renderingControl : z->avTransport;
        name = z->name;
    }
    if (url.empty()) {
        kzLog("UPnP zone %s has no %s\n", name.c_str(), rendering ? "volume control" : "transport");
        return;
    }
    SoapAnswer a = soap(url, rendering ? kRenderingControlType : kAVTransportType, action, args);
    if (!a.ok) kzLog("UPnP zone %s refused %s: %s\n", name.c_str(), action, a.fault.c_str());
    std::lock_guard<std::mutex> g(Z().m);
    if (Zone* z = byKey(key)) z->nextPoll = Clock::now() + std::chrono::milliseconds(300);
}

// Asks a zone what it does, and moves kz's list on when a track has ended.
void pollZone(const std::string& key) {
    std::string avTransport, rendering, name;
    {
        std::lock_guard<std::mutex> g(Z().m);
        Zone* z = byKey(key);
        if (!z) return;
        avTransport = z->avTransport;
        rendering = z->renderingControl;
        name = z->name;
    }
    SoapAnswer info =
        soap(avTransport, kAVTransportType, "GetTransportInfo", {{"InstanceID", "0"}});
    SoapAnswer position, volume;
    if (info.ok)
        position = soap(avTransport, kAVTransportType, "GetPositionInfo", {{"InstanceID", "0"}});
    if (info.ok && !rendering.empty())
        volume = soap(rendering, kRenderingControlType, "GetVolume",
                      {{"InstanceID", "0"}, {"Channel", "Master"}});

    int advanceTo = -1;
    {
        std::lock_guard<std::mutex> g(Z().m);
        Zone* z = byKey(key);
        if (!z) return;
        bool changed = false;
        if (!info.ok) {
            if (z->reachable) {
                kzLog("UPnP zone %s does not answer: %s\n", name.c_str(), info.fault.c_str());
                z->reachable = false;
                changed = true;
            }
            z->nextPoll = Clock::now() + kPollUnreachableEvery;
            if (changed) addEvent(99);
            return;
        }
        if (!z->reachable) {
            kzLog("UPnP zone %s answers again\n", name.c_str());
            z->reachable = true;
            changed = true;
        }
        std::string state = info.values["CurrentTransportState"];
        std::string uri = position.ok ? position.values["TrackURI"] : z->uri;
        int vol = z->volume;
        if (volume.ok) {
            const std::string& v = volume.values["CurrentVolume"];
            if (!v.empty() && v.size() < 4 && std::all_of(v.begin(), v.end(), [](unsigned char c) {
                    return c >= '0' && c <= '9';
                }))
                vol = std::stoi(v);
        }
        changed = changed || state != z->state || uri != z->uri || vol != z->volume;
        z->state = state;
        z->uri = uri;
        z->volume = vol;
        if (z->current >= 0) {
            bool playing = state == "PLAYING" || state == "TRANSITIONING";
            bool ended = state == "STOPPED" || state == "NO_MEDIA_PRESENT";
            if (!uri.empty() && uri != z->sentUri && z->sawPlaying) {
                kzLog("UPnP zone %s plays something else now; kz's list there ends\n",
                      name.c_str());
                z->current = -1;
                z->list.clear();
                z->sentUri.clear();
                changed = true;
            }
            // A clock at its very start says nothing yet; one the renderer
            // does not keep ("NOT_IMPLEMENTED") cannot tell, so it counts.
            const std::string rel = position.ok ? position.values["RelTime"] : "";
            if (playing && rel != "0:00:00" && rel != "00:00:00") z->progressed = true;
            // A track it cannot fetch or decode: some renderers stop, some
            // say PLAYING with a clock that never moves.
            bool stuck = z->current >= 0 && !z->progressed && !z->stoppedByUser &&
                         Clock::now() - z->sentAt > kStartLimit;
            if (stuck)
                kzLog("UPnP zone %s did not start %s; going on\n", name.c_str(),
                      z->sentTitle.c_str());
            if (z->current < 0) {
            } else if (playing && !stuck) {
                z->sawPlaying = true;
            } else if ((ended && z->sawPlaying && !z->stoppedByUser) || stuck) {
                if (z->current + 1 < static_cast<int>(z->list.size())) {
                    advanceTo = z->current + 1;
                } else {
                    kzLog("UPnP zone %s: the list has ended\n", name.c_str());
                    z->current = -1;
                    z->list.clear();
                    changed = true;
                }
            }
        }
        z->nextPoll = Clock::now() + kPollEvery;
        if (changed) addEvent(99);
    }
    if (advanceTo >= 0) sendEntry(key, advanceTo);
}

// Sleeps until there is something to do: a job or a search asked for, the
// next search or zone poll due, or an announcement arriving.
void waitForWork(int listener, Clock::time_point nextSearch) {
    Clock::time_point due = nextSearch;
    {
        std::lock_guard<std::mutex> g(Z().m);
        if (!Z().jobs.empty() || Z().searchNow || Z().forget) return;
        for (const Zone& z : Z().zones)
            due = std::min(due, z.nextPoll);
    }
    auto now = Clock::now();
    if (due <= now) return;
    // Rounded up: waking a moment early would only come straight back here.
    long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                       due - now + std::chrono::microseconds(999))
                       .count();
    // Without the eventfd a request is only noticed by looking again.
    if (Z().wakeFd < 0) ms = std::min(ms, 250LL);
    pollfd p[2] = {{Z().wakeFd, POLLIN, 0}, {listener, POLLIN, 0}};
    poll(p, 2, static_cast<int>(std::min(ms, 60000LL)));
    uint64_t count;
    if (Z().wakeFd >= 0 && read(Z().wakeFd, &count, sizeof count) < 0) {
        // Nothing was pending (EAGAIN): woken by time or an announcement.
    }
}

void zonesThread() {
    int listener = openAnnouncements();
    // Soon again after the start, when renderers and kz come up together.
    const std::chrono::seconds early[] = {std::chrono::seconds(5), std::chrono::seconds(15),
                                          std::chrono::seconds(60)};
    size_t searches = 0;
    auto nextSearch = Clock::now();
    for (;;) {
        std::function<void()> job;
        bool searching = false;
        std::vector<std::string> due;
        waitForWork(listener, nextSearch);
        {
            std::lock_guard<std::mutex> g(Z().m);
            if (Z().forget) {
                Z().forget = false;
                Z().zones.clear();
                Z().inUse.clear();
                Z().searchNow = true;
                kzLog("UPnP: zones forgotten\n");
                addEvent(99);
            }
            if (!Z().jobs.empty()) {
                job = std::move(Z().jobs.front());
                Z().jobs.pop_front();
            } else if (Z().searchNow || Clock::now() >= nextSearch) {
                Z().searchNow = false;
                searching = true;
            } else {
                for (const Zone& z : Z().zones)
                    if (Clock::now() >= z.nextPoll) due.push_back(z.key);
            }
        }
        if (std::vector<SsdpReply> heard = announcements(listener); !heard.empty()) describe(heard);
        if (job) {
            job();
        } else if (searching) {
            search();
            nextSearch =
                Clock::now() + (searches < std::size(early) ? early[searches] : kSearchEvery);
            searches++;
        } else {
            for (const std::string& key : due)
                pollZone(key);
        }
    }
}

// The zone's key, or "" (after a log line) for an index past the list.
std::string zoneKey(int zone, const char* what) {
    std::lock_guard<std::mutex> g(Z().m);
    if (zone < 0 || zone >= static_cast<int>(Z().zones.size())) {
        kzLog("%s for zone %d: there are %d zones\n", what, zone + 1,
              static_cast<int>(Z().zones.size()));
        return "";
    }
    Z().inUse = Z().zones[static_cast<size_t>(zone)].name;
    return Z().zones[static_cast<size_t>(zone)].key;
}

void post(std::function<void()> job) {
    std::lock_guard<std::mutex> g(Z().m);
    Z().jobs.push_back(std::move(job));
    wakeZones();
}

void addTrack(std::vector<Entry>& out, int t) {
    if (t < 0 || t >= getTrackCount() || out.size() >= kMaxListed) return;
    const char* name = getTrackName(t);
    if (!name || !*name) return;
    std::string path = getTrackPath(t);
    const std::string& local = getLocalPath();
    if (local.empty() || path.compare(0, local.size(), local) != 0) return;
    Entry e;
    e.relative = path.substr(local.size());
    e.title = cleanTrackName(name);
    const char* artist = getTrackArtistName(t);
    const char* album = getTrackAlbumName(t);
    e.artist = artist ? artist : "";
    e.album = album ? album : "";
    e.albumId = albumToID(getParentAlbum(t));
    out.push_back(std::move(e));
}

void addAlbum(std::vector<Entry>& out, int album, int fromTrack = -1) {
    bool on = fromTrack < 0;
    for (int t : albumTrackOrder(album)) {
        on = on || t == fromTrack;
        if (on) addTrack(out, t);
    }
}

// The tracks an identifier stands for, in the order they play.
void expand(std::vector<Entry>& out, int id, int depth = 0) {
    if (depth > 2) return;
    if (idIsTrack(id)) {
        int t = idToTrack(id);
        if (t < getTrackCount()) addAlbum(out, getParentAlbum(t), t);
    } else if (idIsAlbum(id)) {
        if (idToAlbum(id) < getAlbumCount()) addAlbum(out, idToAlbum(id));
    } else if (idIsArtist(id)) {
        for (int a : albumsInDisplayOrder())
            if (getAlbumArtist(a) == idToArtist(id)) addAlbum(out, a);
    } else if (idIsPlaylist(id)) {
        for (int entry : getPlaylistEntries(idToPlaylist(id))) {
            // A playlist's track is that track alone, not the rest of its album.
            if (idIsTrack(entry))
                addTrack(out, idToTrack(entry));
            else
                expand(out, entry, depth + 1);
        }
    }
}

// trackAlone: a track stands for itself, not for the rest of its album.
std::vector<Entry> entriesOf(int id, bool trackAlone = false) {
    std::vector<Entry> out;
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    if (trackAlone && idIsTrack(id))
        addTrack(out, idToTrack(id));
    else
        expand(out, id);
    return out;
}

}  // namespace

namespace {

// The value of "name = value" in the web server's configuration, quotes
// and spaces taken off; "" when it is not set.
std::string webServerSetting(const char* name) {
    std::ifstream conf(hostPath("/etc/lighttpd/lighttpd.conf"));
    std::string line;
    const size_t length = strlen(name);
    while (std::getline(conf, line)) {
        size_t p = line.find_first_not_of(" \t");
        if (p == std::string::npos || line.compare(p, length, name) != 0) continue;
        p = line.find_first_not_of(" \t", p + length);
        if (p == std::string::npos || line[p] != '=') continue;
        std::string value = line.substr(p + 1);
        size_t a = value.find_first_not_of(" \t\""), b = value.find_last_not_of(" \t\"\r");
        return a == std::string::npos ? "" : value.substr(a, b - a + 1);
    }
    return "";
}

}  // namespace

int webServerPort() {
    int port = atoi(webServerSetting("server.port").c_str());
    return port > 0 && port < 65536 ? port : 80;
}

void startSonos() {
    {
        std::lock_guard<std::mutex> g(Z().m);
        if (Z().started) return;
        Z().started = true;
    }
    std::thread([] {
        nameThread("kz-zones");
        zonesThread();
    }).detach();
}

void scanSonos() {
    std::lock_guard<std::mutex> g(Z().m);
    Z().searchNow = true;
    wakeZones();
}

void resetSonos() {
    std::lock_guard<std::mutex> g(Z().m);
    Z().forget = true;
    wakeZones();
}

std::vector<ZoneView> sonosZones() {
    std::lock_guard<std::mutex> g(Z().m);
    std::vector<ZoneView> out;
    for (const Zone& z : Z().zones) {
        ZoneView v;
        v.name = z.name;
        v.reachable = z.reachable;
        v.active = z.reachable && z.state == "PLAYING";
        v.state = z.state;
        v.volume = z.volume;
        v.uri = z.uri;
        if (z.current >= 0 && z.uri == z.sentUri &&
            static_cast<size_t>(z.current) < z.list.size()) {
            const Entry& e = z.list[static_cast<size_t>(z.current)];
            v.title = e.title;
            v.artist = e.artist;
            v.album = e.album;
            v.albumId = e.albumId;
        }
        out.push_back(std::move(v));
    }
    return out;
}

std::string sonosZoneInUse() {
    std::lock_guard<std::mutex> g(Z().m);
    return Z().inUse;
}

void sonosUseBox() {
    std::lock_guard<std::mutex> g(Z().m);
    Z().inUse.clear();
}

std::string sonosZonesJson() {
    std::string out = "[";
    for (const ZoneView& v : sonosZones()) {
        if (out.size() > 1) out += ",";
        out += "{\"name\":\"";
        appendJsonText(out, v.name.c_str());
        out += "\",\"active\":";
        out += v.active ? "true" : "false";
        out += ",\"reachable\":";
        out += v.reachable ? "true" : "false";
        out += ",\"state\":\"";
        appendJsonText(out, v.state.c_str());
        out += "\",\"volume\":" + std::to_string(v.volume) + ",\"title\":\"";
        appendJsonText(out, v.title.c_str());
        out += "\",\"artist\":\"";
        appendJsonText(out, v.artist.c_str());
        out += "\",\"album\":\"";
        appendJsonText(out, v.album.c_str());
        out += "\",\"albumid\":" + std::to_string(v.albumId) + ",\"uri\":\"";
        appendJsonText(out, v.uri.c_str());
        out += "\"}";
    }
    return out + "]";
}

bool sonosPlayId(int zone, int id) {
    std::string key = zoneKey(zone, "playID");
    if (key.empty()) return false;
    std::vector<Entry> list = entriesOf(id);
    if (list.empty()) {
        kzLog("playID for zone %d: nothing to play in %d\n", zone + 1, id);
        return false;
    }
    post([key, list = std::move(list)]() mutable {
        {
            std::lock_guard<std::mutex> g(Z().m);
            Zone* z = byKey(key);
            if (!z) return;
            z->list = std::move(list);
            z->queueEnd = 0;
        }
        sendEntry(key, 0);
    });
    return true;
}

bool sonosPlayPlaylist(int zone, int playlist, int fromId) {
    std::string key = zoneKey(zone, "startPlaylist");
    if (key.empty()) return false;
    std::vector<Entry> list = entriesOf(playlistToID(playlist));
    // Begin at the chosen entry when it is a track of the list.
    size_t from = 0;
    if (idIsTrack(fromId)) {
        std::vector<Entry> one = entriesOf(fromId, true);
        for (size_t i = 0; !one.empty() && i < list.size(); i++) {
            if (list[i].relative == one[0].relative) {
                from = i;
                break;
            }
        }
    }
    if (list.empty()) {
        kzLog("startPlaylist for zone %d: playlist %d is empty\n", zone + 1, playlist);
        return false;
    }
    post([key, list = std::move(list), from]() mutable {
        {
            std::lock_guard<std::mutex> g(Z().m);
            Zone* z = byKey(key);
            if (!z) return;
            z->list = std::move(list);
            z->queueEnd = 0;
        }
        sendEntry(key, static_cast<int>(from));
    });
    return true;
}

bool sonosQueueId(int zone, int id) {
    std::string key = zoneKey(zone, "queueID");
    if (key.empty()) return false;
    std::vector<Entry> more = entriesOf(id, true);
    if (more.empty()) return false;
    post([key, more = std::move(more)] {
        bool idle = false;
        {
            std::lock_guard<std::mutex> g(Z().m);
            Zone* z = byKey(key);
            if (!z) return;
            idle = z->current < 0;
            if (idle) {
                z->list = more;
            } else {
                // After what plays, and after what was queued before it.
                size_t at = std::max(static_cast<size_t>(z->current) + 1, z->queueEnd);
                at = std::min(at, z->list.size());
                z->list.insert(z->list.begin() + static_cast<long>(at), more.begin(), more.end());
                z->queueEnd = at + more.size();
            }
        }
        if (idle) sendEntry(key, 0);
    });
    return true;
}

bool sonosKey(int zone, ZoneKey keyPressed) {
    std::string key = zoneKey(zone, keyPressed == ZoneKey::Back   ? "back"
                                    : keyPressed == ZoneKey::Next ? "next"
                                                                  : "play");
    if (key.empty()) return false;
    post([key, keyPressed] {
        int move = 0;
        bool hasList = false, playing = false;
        {
            std::lock_guard<std::mutex> g(Z().m);
            Zone* z = byKey(key);
            if (!z) return;
            hasList = z->current >= 0;
            playing = z->state == "PLAYING" || z->state == "TRANSITIONING";
            if (hasList && keyPressed != ZoneKey::PlayStop) {
                move = keyPressed == ZoneKey::Next ? z->current + 1 : std::max(0, z->current - 1);
                if (move >= static_cast<int>(z->list.size())) move = -1;
            }
        }
        if (keyPressed == ZoneKey::PlayStop) {
            // Asked now: the last poll may be older than the last command.
            std::string avTransport;
            {
                std::lock_guard<std::mutex> g(Z().m);
                if (Zone* z = byKey(key)) avTransport = z->avTransport;
            }
            SoapAnswer now =
                soap(avTransport, kAVTransportType, "GetTransportInfo", {{"InstanceID", "0"}});
            if (now.ok) {
                const std::string& state = now.values["CurrentTransportState"];
                playing = state == "PLAYING" || state == "TRANSITIONING";
            }
            if (playing) {
                {
                    std::lock_guard<std::mutex> g(Z().m);
                    if (Zone* z = byKey(key)) z->stoppedByUser = true;
                }
                plainAction(key, "Stop", {{"InstanceID", "0"}});
            } else {
                plainAction(key, "Play", {{"InstanceID", "0"}, {"Speed", "1"}});
                std::lock_guard<std::mutex> g(Z().m);
                if (Zone* z = byKey(key)) z->stoppedByUser = false;
            }
        } else if (hasList && move >= 0) {
            sendEntry(key, move);
        } else if (hasList) {
            // Next after the last track: the list ends there.
            {
                std::lock_guard<std::mutex> g(Z().m);
                if (Zone* z = byKey(key)) z->stoppedByUser = true;
            }
            plainAction(key, "Stop", {{"InstanceID", "0"}});
        } else {
            plainAction(key, keyPressed == ZoneKey::Next ? "Next" : "Previous",
                        {{"InstanceID", "0"}});
        }
    });
    return true;
}

bool sonosVolume(int zone, int volume100) {
    std::string key = zoneKey(zone, "vol");
    if (key.empty()) return false;
    std::string v = std::to_string(std::clamp(volume100, 0, 100));
    post([key, v] {
        plainAction(key, "SetVolume",
                    {{"InstanceID", "0"}, {"Channel", "Master"}, {"DesiredVolume", v}}, true);
    });
    return true;
}
