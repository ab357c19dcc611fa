// The web listener: one thread that serves the local web server's FastCGI
// connections, one at a time, on a Unix socket, and runs each request's
// command. Until the command set is built, it knows the commands that move
// data in and out (debug log, uploads, browser audio); every other request is
// answered "thanks\n".
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "web/fastcgi.h"

void initWeb();
void closeWeb();
// The listener's socket path ("/var/run/fastCgiUnixSocket" under the root).
std::string webSocketPath();
// Serves one connection to its end.
void fastConnectionHandler(int fd);
// The commands that move data through this listener (debug log, uploads,
// browser audio); from is the URI from the command word on.
void webTransportCommand(const char* uri, const char* from, FcgiReply* reply);

// Wakes the display (event 80), then posts code.
void wakeAndAddEvent(int code);
void webAlert(const char* text);
// An alert the pages show for that many seconds.
void webAlertFor(const char* text, int seconds);
std::string getWebAlert();
void lockQueue();
void unlockQueue();
// Tells the web pages to reload their lists.
void webClientsRefresh();
bool webRefreshRequested();

// Browser audio: the web buffer and its state.
extern std::atomic<int> getWebSamplesEnabled;
extern std::atomic<int> getWebSamplesRunning;
// One period of the browser's audio; false while it is not playing.
bool getWebSamples(int16_t* dest, int frames);
// The same in high resolution (the browser sends CD-rate audio).
bool getWebSamples(int32_t* dest, int frames);
// The browser stream's title ("Browser" when it has none).
std::string getWebTitle();
