// Disc lookup: the names of the disc in the drive, found before it is ripped.
// Three sources, in this order: names a person typed for this disc before,
// MusicBrainz (by disc id, falling back to the table of contents), and CDDB
// (query, then read of every match). What the services said is kept in the
// offline disc database beside kzdb, so a disc seen before is named at once
// and without a network. The lookup runs on a thread of its own: neither
// playback nor the web listener ever waits for a service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ripping/ripper.h"

struct CdHeader;

struct Candidate {
    std::string artist;
    std::string album;
    std::string year;
    std::string genre;
    std::string art;     // cover address, may be empty
    std::string source;  // "typed", "musicbrainz" or "cddb"
    std::string release; // MusicBrainz release id, or CDDB "category/discid"
    std::vector<std::string> tracks;
};

// What the services are asked with.
struct DiscKey {
    std::string discid;    // MusicBrainz disc id
    uint32_t cddbId = 0;
    int firstTrack = 1;
    std::vector<int> offsets;  // each track's start, in sectors with the 150 lead-in
    int leadout = 0;           // the same for the lead-out
    int seconds = 0;           // the disc's length as CDDB counts it
};
DiscKey discKeyOf(const CdHeader& header);

// Service addresses: KZ_MUSICBRAINZ, KZ_CDDB and KZ_COVERART, each with its
// default; an empty value turns that service off.
std::string musicBrainzBase();
std::string cddbAddress();
std::string coverArtBase();

// MusicBrainz ws/2 XML (a disc lookup, or a release list from a table of
// contents lookup) turned into candidates: one per release, the medium that
// holds the disc id (or, failing that, the first with as many tracks),
// releases holding the disc id first and official ones before the rest.
std::vector<Candidate> parseMusicBrainzReply(const std::string& xml, const std::string& discid,
                                             int trackCount);
// Asks MusicBrainz (one request a second at most, one retry after a 503).
std::vector<Candidate> lookupMusicBrainz(const DiscKey& key, int timeoutSeconds);
// Asks the CDDB server over HTTP: "cddb query", then "cddb read" of each match.
std::vector<Candidate> lookupCddb(const DiscKey& key, int timeoutSeconds);

// The offline disc database: typed names and the services' last answer, by
// disc id. A readable JSON file; written whole, atomically.
class DiscDatabase {
  public:
    explicit DiscDatabase(std::string path) : path_(std::move(path)) {}
    // The candidates kept for a disc: typed names first.
    std::vector<Candidate> find(const std::string& discid) const;
    // Replaces what the services said of a disc (kept when `found` is empty).
    bool putFound(const DiscKey& key, const std::vector<Candidate>& found);
    // Replaces the names typed for a disc.
    bool putTyped(const DiscKey& key, const Candidate& typed);
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};
std::string discDatabasePath();

// Candidates from a database file's text; malformed text gives none.
std::vector<Candidate> parseDiscDatabase(const std::string& text, const std::string& discid);

// The state the status reports: "" (no disc), "looking" or "done".
std::string lookupState();
Candidate getCandidate(int index);  // 0-based; empty when there is none
// Runs the lookup of the current disc again.
void restartLookup();
// Keeps names a person typed for the disc in the drive ("newRip", "reindex").
void rememberTypedNames(const RipNames& names);
// The cover the next rip saves instead of its candidate's ("artURL").
void setArtURL(const std::string& url);
std::string getArtURL();
// Downloads an image into path: only a whole, real image is ever written.
bool fetchCoverArt(const std::string& url, const std::string& path);
// Waits for a running lookup to end (tests and the benchmark).
bool waitForLookup(int timeoutMs);
