#include "ripping/lookup.h"

#include <cjson/cJSON.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "core/events.h"
#include "core/files.h"
#include "core/log.h"
#include "library/library.h"
#include "ripping/cdrom.h"
#include "core/http.h"

namespace {

constexpr int kServiceTimeoutSeconds = 10;
constexpr int EVENT_CDDB_LOOKUP = 96;
constexpr size_t kMaxCoverBytes = 16 << 20;
// What a name from a service may hold: enough for any real title, and a
// bound on what a hostile reply can make us store.
constexpr size_t kMaxNameBytes = 500;

std::string envAddress(const char* name, const char* fallback) {
    const char* v = getenv(name);
    std::string s = v ? v : fallback;
    while (!s.empty() && s.back() == '/')
        s.pop_back();
    return s;
}

// One lookup at a time; a newer disc makes an older lookup's answer stale.
// Never destroyed: a lookup thread may still be waiting on a service when
// the daemon exits.
struct Shared {
    std::mutex stateMutex;
    std::condition_variable stateChanged;
    std::vector<Candidate> candidates;
    std::string state;  // "", "looking", "done"
    unsigned generation = 0;
    DiscKey currentKey;
    std::string artOverride;
    // The main loop clears the disc id right after starting a lookup for a
    // disc that has just become readable: that clear belongs to the disc
    // before.
    bool justStarted = false;
    // Serializes the database's read-change-write.
    std::mutex databaseMutex;
};
Shared& shared = *new Shared;
std::mutex& stateMutex = shared.stateMutex;
std::condition_variable& stateChanged = shared.stateChanged;
std::vector<Candidate>& candidates = shared.candidates;
std::string& state = shared.state;
unsigned& generation = shared.generation;
DiscKey& currentKey = shared.currentKey;
std::string& artOverride = shared.artOverride;
bool& justStarted = shared.justStarted;
std::mutex& databaseMutex = shared.databaseMutex;

std::string cut(std::string s) {
    if (s.size() > kMaxNameBytes) {
        size_t n = kMaxNameBytes;
        while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80)
            n--;
        s.resize(n);
    }
    return s;
}

void tidy(Candidate* c, size_t trackCount) {
    for (std::string* s : {&c->artist, &c->album, &c->year, &c->genre, &c->art, &c->release})
        *s = cut(*s);
    if (trackCount) c->tracks.resize(trackCount);
    for (std::string& t : c->tracks)
        t = cut(t);
}

// ---- the database's JSON ----

std::string jsonText(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) && item->valuestring ? item->valuestring : "";
}

Candidate candidateFromJson(const cJSON* o, const char* source) {
    Candidate c;
    c.source = source;
    c.artist = jsonText(o, "artist");
    c.album = jsonText(o, "album");
    c.year = jsonText(o, "year");
    c.genre = jsonText(o, "genre");
    c.art = jsonText(o, "art");
    c.release = jsonText(o, "release");
    std::string from = jsonText(o, "source");
    if (!from.empty() && strcmp(source, "typed") != 0) c.source = from;
    const cJSON* tracks = cJSON_GetObjectItemCaseSensitive(o, "tracks");
    const cJSON* t;
    cJSON_ArrayForEach(t, tracks) c.tracks.push_back(cJSON_IsString(t) ? t->valuestring : "");
    tidy(&c, 0);
    return c;
}

cJSON* candidateToJson(const Candidate& c, bool withSource) {
    cJSON* o = cJSON_CreateObject();
    cJSON_AddStringToObject(o, "artist", c.artist.c_str());
    cJSON_AddStringToObject(o, "album", c.album.c_str());
    if (!c.year.empty()) cJSON_AddStringToObject(o, "year", c.year.c_str());
    if (!c.genre.empty()) cJSON_AddStringToObject(o, "genre", c.genre.c_str());
    if (!c.art.empty()) cJSON_AddStringToObject(o, "art", c.art.c_str());
    if (withSource) cJSON_AddStringToObject(o, "source", c.source.c_str());
    if (!c.release.empty()) cJSON_AddStringToObject(o, "release", c.release.c_str());
    cJSON* tracks = cJSON_AddArrayToObject(o, "tracks");
    for (const std::string& t : c.tracks)
        cJSON_AddItemToArray(tracks, cJSON_CreateString(t.c_str()));
    return o;
}

std::string readWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

using JsonPtr = std::unique_ptr<cJSON, void (*)(cJSON*)>;

// The file as a tree: { "discs": { "<disc id>": { "cddb", "typed", "found" } } }.
// A damaged file is not overwritten blindly: it is set aside first.
JsonPtr loadTree(const std::string& path) {
    std::string text = readWhole(path);
    JsonPtr root(text.empty() ? nullptr : cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!text.empty() && (!root || !cJSON_IsObject(cJSON_GetObjectItem(root.get(), "discs")))) {
        kzLog("Disc database %s is damaged: kept as %s.bad, starting afresh\n", path.c_str(),
              path.c_str());
        rename(path.c_str(), (path + ".bad").c_str());
        root.reset();
    }
    if (!root) {
        root.reset(cJSON_CreateObject());
        cJSON_AddObjectToObject(root.get(), "discs");
    }
    return root;
}

bool saveTree(const std::string& path, cJSON* root) {
    std::unique_ptr<char, void (*)(void*)> text(cJSON_Print(root), free);
    if (!text) return false;
    bool ok = writeFileAtomically(path, [&](FILE* f) {
        return fputs(text.get(), f) >= 0 && fputc('\n', f) != EOF;
    });
    if (!ok) kzLog("Disc database %s not written\n", path.c_str());
    return ok;
}

cJSON* discEntry(cJSON* root, const DiscKey& key) {
    cJSON* discs = cJSON_GetObjectItem(root, "discs");
    cJSON* entry = cJSON_GetObjectItemCaseSensitive(discs, key.discid.c_str());
    // A hand-edited entry that is not an object is replaced, not written into.
    if (entry && !cJSON_IsObject(entry)) {
        kzLog("Disc database entry %s is damaged: replaced\n", key.discid.c_str());
        cJSON_DeleteItemFromObjectCaseSensitive(discs, key.discid.c_str());
        entry = nullptr;
    }
    if (!entry) entry = cJSON_AddObjectToObject(discs, key.discid.c_str());
    char id[16];
    snprintf(id, sizeof id, "%08X", key.cddbId);
    cJSON_DeleteItemFromObjectCaseSensitive(entry, "cddb");
    cJSON_AddStringToObject(entry, "cddb", id);
    return entry;
}

// ---- the lookup ----

void publish(unsigned gen, std::vector<Candidate> list, const char* newState) {
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        if (gen != generation) return;
        candidates = std::move(list);
        state = newState;
    }
    stateChanged.notify_all();
    addEvent(EVENT_CDDB_LOOKUP);
}

void runLookup(unsigned gen, DiscKey key) {
    auto started = std::chrono::steady_clock::now();
    DiscDatabase db(discDatabasePath());
    std::vector<Candidate> kept;
    {
        std::lock_guard<std::mutex> hold(databaseMutex);
        kept = db.find(key.discid);
    }
    // A disc seen before is named at once, before any service answers.
    if (!kept.empty()) publish(gen, kept, "looking");

    // Both services at once: a silent one costs its own time-out, not the sum.
    auto mb = std::async(std::launch::async, lookupMusicBrainz, key, kServiceTimeoutSeconds);
    auto cddb = std::async(std::launch::async, lookupCddb, key, kServiceTimeoutSeconds);
    std::vector<Candidate> found = mb.get();
    std::vector<Candidate> more = cddb.get();
    found.insert(found.end(), more.begin(), more.end());
    for (Candidate& c : found)
        tidy(&c, key.offsets.size());

    std::vector<Candidate> list;
    for (const Candidate& c : kept)
        if (c.source == "typed") list.push_back(c);
    if (found.empty()) {
        // Nothing new (no network, or no match now): what was said before stands.
        for (const Candidate& c : kept)
            if (c.source != "typed") list.push_back(c);
    } else {
        list.insert(list.end(), found.begin(), found.end());
        std::lock_guard<std::mutex> hold(databaseMutex);
        db.putFound(key, found);
    }
    long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - started)
                                    .count());
    kzLog("Disc lookup of %s: %d candidates in %ld ms\n", key.discid.c_str(),
          static_cast<int>(list.size()), ms);
    publish(gen, std::move(list), "done");
}

void startLookupOf(const DiscKey& key) {
    unsigned gen;
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        gen = ++generation;
        currentKey = key;
        candidates.clear();
        state = "looking";
    }
    try {
        std::thread(runLookup, gen, key).detach();
    } catch (const std::system_error&) {
        kzLog("Disc lookup failed to create its thread\n");
        std::lock_guard<std::mutex> hold(stateMutex);
        state = "done";
    }
}

bool looksLikeImage(const std::string& b) {
    auto starts = [&](const char* magic, size_t n, size_t at = 0) {
        return b.size() >= at + n && memcmp(b.data() + at, magic, n) == 0;
    };
    return starts("\xFF\xD8\xFF", 3) || starts("\x89PNG\r\n\x1A\n", 8) || starts("GIF8", 4) ||
           (starts("RIFF", 4) && starts("WEBP", 4, 8));
}

}  // namespace

DiscKey discKeyOf(const CdHeader& header) {
    DiscKey key;
    key.discid = computeDiscId(header);
    key.cddbId = CdHeaderComputeCddbId(header);
    key.firstTrack = header.firstTrack;
    for (const CdTrack& t : header.tracks)
        key.offsets.push_back(t.startLsn + 150);
    key.leadout = header.leadoutLsn + 150;
    key.seconds = key.leadout / kSectorsPerSecond;
    return key;
}

std::string musicBrainzBase() {
    return envAddress("KZ_MUSICBRAINZ", "https://musicbrainz.org");
}
std::string cddbAddress() {
    return envAddress("KZ_CDDB", "http://gnudb.gnudb.org/~cddb/cddb.cgi");
}
std::string coverArtBase() {
    return envAddress("KZ_COVERART", "https://coverartarchive.org");
}

std::string discDatabasePath() {
    return getLocalPath() + "/kzdiscs";
}

std::vector<Candidate> parseDiscDatabase(const std::string& text, const std::string& discid) {
    std::vector<Candidate> out;
    JsonPtr root(cJSON_Parse(text.c_str()), cJSON_Delete);
    const cJSON* entry =
        cJSON_GetObjectItemCaseSensitive(cJSON_GetObjectItem(root.get(), "discs"), discid.c_str());
    if (!cJSON_IsObject(entry)) return out;
    const cJSON* typed = cJSON_GetObjectItemCaseSensitive(entry, "typed");
    if (cJSON_IsObject(typed)) out.push_back(candidateFromJson(typed, "typed"));
    const cJSON* found = cJSON_GetObjectItemCaseSensitive(entry, "found");
    const cJSON* c;
    cJSON_ArrayForEach(c, found) if (cJSON_IsObject(c)) out.push_back(candidateFromJson(c, "cddb"));
    return out;
}

std::vector<Candidate> DiscDatabase::find(const std::string& discid) const {
    return parseDiscDatabase(readWhole(path_), discid);
}

bool DiscDatabase::putFound(const DiscKey& key, const std::vector<Candidate>& found) {
    if (found.empty() || key.discid.empty()) return false;
    JsonPtr root = loadTree(path_);
    cJSON* entry = discEntry(root.get(), key);
    cJSON_DeleteItemFromObjectCaseSensitive(entry, "found");
    cJSON* list = cJSON_AddArrayToObject(entry, "found");
    for (const Candidate& c : found)
        cJSON_AddItemToArray(list, candidateToJson(c, true));
    return saveTree(path_, root.get());
}

bool DiscDatabase::putTyped(const DiscKey& key, const Candidate& typed) {
    if (key.discid.empty()) return false;
    JsonPtr root = loadTree(path_);
    cJSON* entry = discEntry(root.get(), key);
    cJSON_DeleteItemFromObjectCaseSensitive(entry, "typed");
    cJSON_AddItemToObject(entry, "typed", candidateToJson(typed, false));
    return saveTree(path_, root.get());
}

// ---- what the rest of kz calls ----

void clearOfflineFlag() {}

void startCDDBLookup() {
    DiscKey key = discKeyOf(currentToc());
    if (key.discid.empty()) return;
    kzLog("Looking up disc %s (CDDB %08X)\n", key.discid.c_str(), key.cddbId);
    startLookupOf(key);
    std::lock_guard<std::mutex> hold(stateMutex);
    justStarted = true;
}

void restartLookup() {
    DiscKey key;
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        key = currentKey;
    }
    if (!key.discid.empty()) startLookupOf(key);
}

void clearDiscid() {
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        if (justStarted) {
            justStarted = false;
            return;
        }
        ++generation;
        candidates.clear();
        currentKey = DiscKey();
        state.clear();
    }
    stateChanged.notify_all();
}

void clearArtURL() {
    std::lock_guard<std::mutex> hold(stateMutex);
    artOverride.clear();
}

// The cover of a candidate is fetched when a rip saves it, and the pages
// show it from its address: nothing to fetch ahead.
void startGetArt() {}

void setArtURL(const std::string& url) {
    std::lock_guard<std::mutex> hold(stateMutex);
    artOverride = url;
}

std::string getArtURL() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return artOverride;
}

std::string lookupState() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return state;
}

int getLookupCandidateCount() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return static_cast<int>(candidates.size());
}

Candidate getCandidate(int index) {
    std::lock_guard<std::mutex> hold(stateMutex);
    if (index < 0 || index >= static_cast<int>(candidates.size())) return {};
    return candidates[index];
}

RipNames getLookupCandidate(int index) {
    Candidate c = getCandidate(index);
    RipNames names;
    names.artist = c.artist;
    names.album = c.album;
    names.year = c.year;
    names.genre = c.genre;
    names.artUrl = c.art;
    names.tracks = c.tracks;
    return names;
}

void rememberTypedNames(const RipNames& names) {
    DiscKey key;
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        key = currentKey;
    }
    if (key.discid.empty()) return;
    Candidate c;
    c.source = "typed";
    c.artist = names.artist;
    c.album = names.album;
    c.year = names.year;
    c.genre = names.genre;
    c.art = names.artUrl;
    c.tracks = names.tracks;
    tidy(&c, key.offsets.size());
    {
        std::lock_guard<std::mutex> hold(databaseMutex);
        DiscDatabase(discDatabasePath()).putTyped(key, c);
    }
    // The typed names lead the list from now on.
    std::lock_guard<std::mutex> hold(stateMutex);
    if (key.discid != currentKey.discid) return;
    if (!candidates.empty() && candidates[0].source == "typed") candidates.erase(candidates.begin());
    candidates.insert(candidates.begin(), c);
}

bool fetchCoverArt(const std::string& url, const std::string& path) {
    HttpResult r = httpGet(url, kServiceTimeoutSeconds * 2, kMaxCoverBytes);
    if (!r.error.empty() || r.status != 200) {
        kzLog("Cover art from %s not fetched: %s\n", url.c_str(),
              r.error.empty() ? ("HTTP " + std::to_string(r.status)).c_str() : r.error.c_str());
        return false;
    }
    if (!looksLikeImage(r.body)) {
        kzLog("Cover art from %s is not an image (%d bytes)\n", url.c_str(),
              static_cast<int>(r.body.size()));
        return false;
    }
    return writeFileAtomically(path, [&](FILE* f) {
        return fwrite(r.body.data(), 1, r.body.size(), f) == r.body.size();
    });
}

bool waitForLookup(int timeoutMs) {
    std::unique_lock<std::mutex> hold(stateMutex);
    return stateChanged.wait_for(hold, std::chrono::milliseconds(timeoutMs),
                                 [] { return state != "looking"; });
}
