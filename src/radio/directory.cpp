#include "radio/directory.h"

#include <cjson/cJSON.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "core/log.h"
#include "radio/fetch.h"
#include "radio/icy.h"
#include "radio/playlist.h"
#include "radio/stations.h"

namespace {

constexpr size_t kReplyBytes = 4 << 20;
constexpr int kTimeoutSeconds = 10;
constexpr int kListLimit = 100;

struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

std::string text(const cJSON* object, const char* key) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(v) && v->valuestring ? v->valuestring : "";
}

int number(const cJSON* object, const char* key) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(object, key);
    if (cJSON_IsNumber(v))
        return v->valuedouble > 2e9 ? 2000000000 : v->valuedouble < 0 ? 0 : v->valueint;
    if (cJSON_IsString(v) && v->valuestring) return atoi(v->valuestring);
    return 0;
}

std::mutex& walkMutex() {
    static std::mutex& m = *new std::mutex;
    return m;
}
std::string& lastLink() {
    static std::string& s = *new std::string;
    return s;
}

// The directory's JSON array at path, or false (logged) when it is off or
// answers anything else.
bool fetchArray(const std::string& path, std::string* body) {
    std::string base = radioDirectoryBase();
    if (base.empty()) {
        kzLog("Radio directory: off (KZ_RADIO_DIRECTORY is empty)\n");
        return false;
    }
    FetchReply r = fetchAll(base + path, kTimeoutSeconds, kReplyBytes, nullptr, body);
    if (r.status != 200 || !r.error.empty()) {
        kzLog("Radio directory: %s answered %ld %s\n", path.c_str(), r.status, r.error.c_str());
        return false;
    }
    Json json(cJSON_ParseWithLength(body->data(), body->size()));
    if (!cJSON_IsArray(json.get())) {
        kzLog("Radio directory: %s did not answer a list\n", path.c_str());
        return false;
    }
    return true;
}

DirectoryPage fetchStations(const std::string& path) {
    DirectoryPage page;
    std::string body;
    page.ok = fetchArray(path, &body);
    if (page.ok) page.entries = parseDirectoryStations(body);
    return page;
}

DirectoryPage fetchFolders(const std::string& path, const std::string& prefix) {
    DirectoryPage page;
    std::string body;
    page.ok = fetchArray(path, &body);
    if (page.ok) page.entries = parseDirectoryFolders(body, prefix);
    return page;
}

std::string listQuery() {
    return "&order=clickcount&reverse=true&hidebroken=true&limit=" + std::to_string(kListLimit);
}

DirectoryPage topLevel() {
    DirectoryPage page;
    page.ok = !radioDirectoryBase().empty();
    if (page.ok) {
        page.entries.push_back({-1, "Genres", "genres", 0});
        page.entries.push_back({-1, "Countries", "countries", 0});
    }
    return page;
}

}  // namespace

std::string radioDirectoryBase() {
    const char* v = getenv("KZ_RADIO_DIRECTORY");
    std::string s = v ? v : "https://all.api.radio-browser.info";
    while (!s.empty() && s.back() == '/')
        s.pop_back();
    return s;
}

std::vector<DirectoryEntry> parseDirectoryStations(const std::string& body) {
    std::vector<DirectoryEntry> out;
    Json json(cJSON_ParseWithLength(body.data(), body.size()));
    const cJSON* item;
    cJSON_ArrayForEach(item, json.get()) {
        if (!cJSON_IsObject(item)) continue;
        Station s;
        s.name = cleanStreamText(text(item, "name"), 200);
        // The resolved address saves a round of playlist fetching.
        s.url = text(item, "url_resolved");
        if (!isHttpUrl(s.url)) s.url = text(item, "url");
        s.logo = text(item, "favicon");
        if (!isHttpUrl(s.url)) continue;
        int index = stationList().addFound(s);
        if (index < 0) continue;
        DirectoryEntry e;
        e.id = 5000000 + index;
        e.name = stationList().get(index).name;
        out.push_back(e);
        if (out.size() >= 1000) break;
    }
    return out;
}

std::vector<DirectoryEntry> parseDirectoryFolders(const std::string& body,
                                                  const std::string& prefix) {
    std::vector<DirectoryEntry> out;
    Json json(cJSON_ParseWithLength(body.data(), body.size()));
    const cJSON* item;
    cJSON_ArrayForEach(item, json.get()) {
        if (!cJSON_IsObject(item)) continue;
        std::string name = cleanStreamText(text(item, "name"), 100);
        if (name.empty()) continue;
        DirectoryEntry e;
        e.name = name;
        e.link = prefix + "/" + name;
        e.count = number(item, "stationcount");
        out.push_back(e);
        if (out.size() >= 1000) break;
    }
    return out;
}

DirectoryPage directoryTop() {
    return fetchStations("/json/stations/topclick/50?hidebroken=true");
}

DirectoryPage directorySearch(const std::string& text) {
    return fetchStations("/json/stations/search?name=" + urlEscape(text) + listQuery());
}

DirectoryPage directoryLink(const std::string& link) {
    {
        std::lock_guard<std::mutex> g(walkMutex());
        lastLink() = link;
    }
    if (link.empty()) return topLevel();
    if (link == "genres")
        return fetchFolders("/json/tags?order=stationcount&reverse=true&hidebroken=true&limit=" +
                                std::to_string(kListLimit),
                            "genre");
    if (link == "countries")
        return fetchFolders("/json/countries?order=stationcount&reverse=true&hidebroken=true",
                            "country");
    if (link.compare(0, 6, "genre/") == 0)
        return fetchStations(
            "/json/stations/search?tagExact=true&tag=" + urlEscape(link.substr(6)) + listQuery());
    if (link.compare(0, 8, "country/") == 0)
        return fetchStations("/json/stations/search?countryExact=true&country=" +
                             urlEscape(link.substr(8)) + listQuery());
    kzLog("Radio directory: no such place %s\n", link.c_str());
    return DirectoryPage();
}

DirectoryPage directoryBack() {
    std::string link;
    {
        std::lock_guard<std::mutex> g(walkMutex());
        link = lastLink();
    }
    std::string parent;
    if (link.compare(0, 6, "genre/") == 0) parent = "genres";
    if (link.compare(0, 8, "country/") == 0) parent = "countries";
    return directoryLink(parent);
}
