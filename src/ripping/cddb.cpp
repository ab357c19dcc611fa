// CDDB over HTTP with libcddb: "cddb query" with the disc's id and offsets,
// then "cddb read" of each match (an exact "200" or every one of a "210"/"211"
// list). libcddb keeps a cache of its own in the home folder: off, the
// offline disc database does that job.
#include <cddb/cddb.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "core/log.h"
#include "ripping/lookup.h"

#ifndef KZ_VERSION
#define KZ_VERSION "0"
#endif

namespace {

void cddbLog(cddb_log_level_t level, const char* message) {
    if (level >= CDDB_LOG_WARN) kzLog("libcddb: %s\n", message);
}

struct Address {
    std::string host;
    int port = 80;
    std::string path = "/";
};

// "http://host[:port]/path"; false for anything libcddb cannot reach.
bool parseAddress(const std::string& url, Address* a) {
    const std::string scheme = "http://";
    if (url.compare(0, scheme.size(), scheme) != 0) return false;
    std::string rest = url.substr(scheme.size());
    size_t slash = rest.find('/');
    std::string hostPort = rest.substr(0, slash);
    a->path = slash == std::string::npos ? "/" : rest.substr(slash);
    size_t colon = hostPort.rfind(':');
    if (colon != std::string::npos) {
        a->port = atoi(hostPort.c_str() + colon + 1);
        hostPort.resize(colon);
    }
    a->host = hostPort;
    return !a->host.empty() && a->port > 0 && a->port < 65536;
}

std::string text(const char* s) {
    return s ? s : "";
}

Candidate candidateOf(cddb_disc_t* disc, int trackCount) {
    Candidate c;
    c.source = "cddb";
    c.artist = text(cddb_disc_get_artist(disc));
    c.album = text(cddb_disc_get_title(disc));
    unsigned year = cddb_disc_get_year(disc);
    if (year > 0) c.year = std::to_string(year);
    c.genre = text(cddb_disc_get_genre(disc));
    if (c.genre.empty()) c.genre = text(cddb_disc_get_category_str(disc));
    char id[16];
    snprintf(id, sizeof id, "%08x", cddb_disc_get_discid(disc));
    c.release = text(cddb_disc_get_category_str(disc)) + "/" + id;
    c.tracks.assign(trackCount, "");
    int n = cddb_disc_get_track_count(disc);
    for (int i = 0; i < n && i < trackCount; i++) {
        cddb_track_t* t = cddb_disc_get_track(disc, i);
        if (!t) continue;
        c.tracks[i] = text(cddb_track_get_title(t));
        // A compilation's entries name each track's artist: keep it with the title.
        const char* artist = cddb_track_get_artist(t);
        if (artist && *artist && c.artist != artist) c.tracks[i] = std::string(artist) + " / " + c.tracks[i];
    }
    return c;
}

}  // namespace

std::vector<Candidate> lookupCddb(const DiscKey& key, int timeoutSeconds) {
    std::vector<Candidate> out;
    std::string url = cddbAddress();
    if (url.empty() || key.offsets.empty()) return out;
    Address address;
    if (!parseAddress(url, &address)) {
        kzLog("CDDB address %s is not http://host[:port]/path\n", url.c_str());
        return out;
    }
    static std::once_flag once;
    std::call_once(once, [] { cddb_log_set_handler(cddbLog); });

    std::unique_ptr<cddb_conn_t, void (*)(cddb_conn_t*)> conn(cddb_new(), cddb_destroy);
    std::unique_ptr<cddb_disc_t, void (*)(cddb_disc_t*)> disc(cddb_disc_new(), cddb_disc_destroy);
    if (!conn || !disc) return out;
    cddb_cache_disable(conn.get());
    cddb_http_enable(conn.get());
    cddb_http_proxy_disable(conn.get());
    cddb_set_server_name(conn.get(), address.host.c_str());
    cddb_set_server_port(conn.get(), address.port);
    cddb_set_http_path_query(conn.get(), address.path.c_str());
    cddb_set_timeout(conn.get(), static_cast<unsigned>(timeoutSeconds));
    cddb_set_client(conn.get(), "kz", KZ_VERSION);
    // No cddb_set_charset: level 6 replies are UTF-8 already, and libcddb's
    // conversion frees a pointer it does not own on some replies (found by
    // fuzzing), which would take the daemon down.

    for (int offset : key.offsets) {
        cddb_track_t* t = cddb_track_new();
        cddb_track_set_frame_offset(t, offset);
        cddb_disc_add_track(disc.get(), t);
    }
    cddb_disc_set_length(disc.get(), static_cast<unsigned>(key.seconds));
    cddb_disc_set_discid(disc.get(), key.cddbId);

    kzLog("CDDB query %08x at %s\n", key.cddbId, url.c_str());
    int matches = cddb_query(conn.get(), disc.get());
    if (matches < 0) {
        kzLog("CDDB query failed: %s\n", cddb_error_str(cddb_errno(conn.get())));
        return out;
    }
    const int trackCount = static_cast<int>(key.offsets.size());
    // Bounded: a server that lists hundreds of inexact matches is not helping.
    for (int i = 0; i < matches && i < 10; i++) {
        if (i > 0 && !cddb_query_next(conn.get(), disc.get())) break;
        std::unique_ptr<cddb_disc_t, void (*)(cddb_disc_t*)> match(cddb_disc_clone(disc.get()),
                                                                   cddb_disc_destroy);
        if (!match) break;
        if (!cddb_read(conn.get(), match.get())) {
            kzLog("CDDB read %s/%08x failed: %s\n", cddb_disc_get_category_str(match.get()),
                  cddb_disc_get_discid(match.get()), cddb_error_str(cddb_errno(conn.get())));
            continue;
        }
        out.push_back(candidateOf(match.get(), trackCount));
    }
    kzLog("CDDB gave %d candidates\n", static_cast<int>(out.size()));
    return out;
}
