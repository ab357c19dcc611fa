// The station directory: an open directory that speaks the community
// radio-browser JSON API (/json/stations/topclick, /json/stations/search,
// /json/tags, /json/countries), at KZ_RADIO_DIRECTORY (default
// "https://all.api.radio-browser.info"; empty turns it off). Stations it
// lists join the station list unkept, so their identifiers play them.
#pragma once

#include <string>
#include <vector>

struct DirectoryEntry {
    // A station (id in the radio band) or a folder to walk into (link).
    int id = -1;
    std::string name;
    std::string link;
    int count = 0;
};

struct DirectoryPage {
    bool ok = false;  // false: the directory is off or did not answer usefully
    std::vector<DirectoryEntry> entries;
};

std::string radioDirectoryBase();

DirectoryPage directoryTop();
DirectoryPage directorySearch(const std::string& text);
// "" for the top level, "genres", "countries", "genre/<name>",
// "country/<name>". Remembers the link for directoryBack.
DirectoryPage directoryLink(const std::string& link);
// The level above the last link walked.
DirectoryPage directoryBack();

// Parses a radio-browser station array into the station list (for tests and
// the fuzz target). Entries without a web address are skipped.
std::vector<DirectoryEntry> parseDirectoryStations(const std::string& json);
// Parses a /json/tags or /json/countries reply into folders under prefix.
std::vector<DirectoryEntry> parseDirectoryFolders(const std::string& json,
                                                  const std::string& prefix);
