#include "radio/stations.h"

#include <strings.h>

#include <cstring>
#include <mutex>

#include "core/files.h"
#include "core/log.h"
#include "radio/icy.h"
#include "radio/playlist.h"

namespace {

// The file's first line; each station then is one line of name, address and
// logo separated by tabs (none of which can hold a tab or a line end).
constexpr char kHeader[] = "kzradio 1";

std::mutex& listMutex() {
    static std::mutex& m = *new std::mutex;
    return m;
}

std::string field(const std::string& text) {
    return cleanStreamText(text, 1024);
}

}  // namespace

StationList& stationList() {
    static StationList& list = *new StationList;
    return list;
}

void StationList::load(const std::string& root) {
    std::lock_guard<std::mutex> g(listMutex());
    stations_.clear();
    kept_.clear();
    // Without a library there is nowhere to keep stations (they still play).
    path_ = root.empty() ? "" : root + "/kzradio";
    if (path_.empty()) return;
    File f(fopen(path_.c_str(), "r"));
    if (!f) return;
    char line[4096];
    bool first = true;
    int bad = 0;
    while (fgets(line, sizeof line, f.get())) {
        size_t n = strlen(line);
        bool whole = n > 0 && line[n - 1] == '\n';
        while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r'))
            line[--n] = '\0';
        if (!whole && !feof(f.get())) {
            // Longer than any line kz writes: skip the rest of it.
            int c;
            while ((c = fgetc(f.get())) != EOF && c != '\n') {
            }
            bad++;
            continue;
        }
        if (first) {
            first = false;
            if (strcmp(line, kHeader) != 0) {
                kzLog("Radio: %s is not a station list, ignored\n", path_.c_str());
                stations_.clear();
                kept_.clear();
                return;
            }
            continue;
        }
        std::string text(line, n);
        size_t t1 = text.find('\t');
        size_t t2 = t1 == std::string::npos ? std::string::npos : text.find('\t', t1 + 1);
        Station s;
        s.name = field(text.substr(0, t1));
        if (t1 != std::string::npos)
            s.url = text.substr(t1 + 1, t2 == std::string::npos ? std::string::npos : t2 - t1 - 1);
        if (t2 != std::string::npos) s.logo = text.substr(t2 + 1);
        if (!isHttpUrl(s.url) || static_cast<int>(stations_.size()) >= kCapacity) {
            bad++;
            continue;
        }
        if (!s.logo.empty() && !isHttpUrl(s.logo)) s.logo.clear();
        stations_.push_back(s);
        kept_.push_back(true);
    }
    if (bad) kzLog("Radio: %d bad lines in %s skipped\n", bad, path_.c_str());
    kzLog("Radio: %d stations\n", static_cast<int>(stations_.size()));
}

bool StationList::save() const {
    std::vector<Station> copy;
    std::string path;
    {
        std::lock_guard<std::mutex> g(listMutex());
        for (size_t i = 0; i < stations_.size(); i++)
            if (kept_[i]) copy.push_back(stations_[i]);
        path = path_;
    }
    if (path.empty()) return false;
    bool ok = writeFileAtomically(path, [&](FILE* f) {
        fprintf(f, "%s\n", kHeader);
        for (const Station& s : copy)
            fprintf(f, "%s\t%s\t%s\n", s.name.c_str(), s.url.c_str(), s.logo.c_str());
        return !ferror(f);
    });
    if (!ok) kzLog("Radio: cannot write %s\n", path.c_str());
    return ok;
}

int StationList::count() const {
    std::lock_guard<std::mutex> g(listMutex());
    return static_cast<int>(stations_.size());
}

Station StationList::get(int index) const {
    std::lock_guard<std::mutex> g(listMutex());
    if (index < 0 || index >= static_cast<int>(stations_.size())) return {};
    return stations_[index];
}

int StationList::add(const Station& station) {
    return insert(station, true);
}

int StationList::addFound(const Station& station) {
    return insert(station, false);
}

void StationList::keep(int index) {
    std::lock_guard<std::mutex> g(listMutex());
    if (index >= 0 && index < static_cast<int>(kept_.size())) kept_[index] = true;
}

int StationList::insert(const Station& station, bool kept) {
    Station s;
    s.name = field(station.name);
    // Addresses are kept as given, but one line of a file can hold no tab
    // or line end; such an address is not one anyway.
    if (!isHttpUrl(station.url) || station.url.find_first_of("\t\r\n ") != std::string::npos ||
        station.url.size() > 2048)
        return -1;
    s.url = station.url;
    if (isHttpUrl(station.logo) && station.logo.find_first_of("\t\r\n ") == std::string::npos &&
        station.logo.size() <= 2048)
        s.logo = station.logo;
    if (s.name.empty()) s.name = s.url;
    std::lock_guard<std::mutex> g(listMutex());
    for (size_t i = 0; i < stations_.size(); i++) {
        if (stations_[i].url == s.url) {
            // A better name or a logo from the directory is kept.
            if (!station.name.empty()) stations_[i].name = s.name;
            if (!s.logo.empty()) stations_[i].logo = s.logo;
            if (kept) kept_[i] = true;
            return static_cast<int>(i);
        }
    }
    if (static_cast<int>(stations_.size()) >= kCapacity) return -1;
    stations_.push_back(s);
    kept_.push_back(kept);
    return static_cast<int>(stations_.size()) - 1;
}

std::vector<int> StationList::search(const std::string& text) const {
    std::lock_guard<std::mutex> g(listMutex());
    std::vector<int> out;
    for (size_t i = 0; i < stations_.size(); i++) {
        const std::string& name = stations_[i].name;
        bool match = text.empty();
        for (size_t at = 0; !match && at + text.size() <= name.size(); at++)
            match = strncasecmp(name.c_str() + at, text.c_str(), text.size()) == 0;
        if (match) out.push_back(static_cast<int>(i));
    }
    return out;
}

void StationList::clear() {
    std::lock_guard<std::mutex> g(listMutex());
    stations_.clear();
    kept_.clear();
}
