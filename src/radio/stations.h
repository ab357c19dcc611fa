// The station list: every station kz knows (added by address from the page,
// played from the directory), kept in "kzradio" beside the library's
// database file. A station's identifier is radioToID(its index); indexes
// never move, so an identifier on a page stays good while kz runs.
#pragma once

#include <string>
#include <vector>

#include "radio/player.h"

class StationList {
  public:
    // Reads root + "/kzradio"; a missing or unreadable file is an empty list.
    void load(const std::string& root);
    // Writes the file atomically; false (and a log line) when it could not.
    bool save() const;

    int count() const;
    // An empty station for a bad index.
    Station get(int index) const;
    // The index of the station with this address, added when new. -1 when
    // the address is not a web address or the list is full.
    int add(const Station& station);
    // A station from a directory listing: known while kz runs (its
    // identifier plays it) but written to the file only once kept.
    int addFound(const Station& station);
    // Keeps the station in the file from now on.
    void keep(int index);
    // Indexes of stations whose name holds text (any case), in list order.
    std::vector<int> search(const std::string& text) const;
    void clear();

    static constexpr int kCapacity = 100000;

  private:
    int insert(const Station& station, bool kept);

    std::string path_;
    std::vector<Station> stations_;
    std::vector<bool> kept_;
};

StationList& stationList();
