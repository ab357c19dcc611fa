// Networked speakers as zones: any UPnP AV media renderer found on the
// network (a Sonos player among them) plays the library's tracks, fetched
// through the box's web server. One thread of its own finds the renderers,
// sends them what the pages ask and watches what they play, so that a
// renderer that hangs never holds the web listener or the local player.
#pragma once

#include <string>
#include <vector>

struct ZoneView {
    std::string name;
    bool active = false;    // playing now
    bool reachable = true;  // answered its last question
    std::string state;      // the renderer's transport state
    int volume = -1;        // 0..100, -1 unknown
    std::string title;      // what kz sent it, when it plays kz's list
    std::string artist, album;
    int albumId = -1;
    std::string uri;  // the address it plays
};

// Starts the zones' thread: a search at once and every few minutes.
void startSonos();
// Search again now; forget every zone and search again.
void scanSonos();
void resetSonos();

std::vector<ZoneView> sonosZones();
// The name of the zone the pages used last, "" for this box.
std::string sonosZoneInUse();
void sonosUseBox();
// The zones as JSON, for "sonosStatus" and the pages.
std::string sonosZonesJson();

// zone counts from 0. Each returns false (after a log line) for a zone past
// the list or an identifier that names nothing playable; the work itself is
// done on the zones' thread.
bool sonosPlayId(int zone, int id);
bool sonosQueueId(int zone, int id);
bool sonosPlayPlaylist(int zone, int playlist, int fromId);
enum class ZoneKey { Back, PlayStop, Next };
bool sonosKey(int zone, ZoneKey key);
bool sonosVolume(int zone, int volume100);

// The web server's port, as its configuration names it (80 when it does not).
int webServerPort();
