// HTTP for the radio, through libcurl: a GET whose body is handed on as it
// arrives (a station's stream, which never ends) or kept whole (playlists,
// HLS segments, the directory). Either can be cancelled from another thread
// and gives up on a peer that stops sending.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

struct FetchReply {
    long status = 0;           // the last response's code; 0 when none came
    std::string contentType;   // without parameters, lower case
    std::string effectiveUrl;  // after redirects
    std::string icyName;       // "icy-name" of a station's stream
    long metaint = 0;          // "icy-metaint": bytes of audio between titles
    std::string error;         // why the transfer ended early, "" when it did not
    bool cancelled = false;
    // The error will not go away by asking again (a redirect loop, an
    // address curl cannot use).
    bool permanent = false;
    size_t bytes = 0;  // body bytes received
};

struct FetchOptions {
    bool icy = false;  // ask for ICY titles ("Icy-MetaData: 1")
    int connectSeconds = 10;
    int stallSeconds = 10;  // no byte for this long ends the transfer
    int totalSeconds = 0;   // 0: no limit (a stream)
    size_t maxBytes = 0;    // 0: no limit
};

// Gets the body to sink, which may refuse more by returning false. reply is
// filled before the first call of sink (status, type, metaint).
using FetchSink = std::function<bool(const FetchReply& reply, const char* data, size_t length)>;
FetchReply fetchStream(const std::string& url, const FetchOptions& options,
                       const std::atomic<bool>* cancel, const FetchSink& sink);

// The whole body, at most maxBytes.
FetchReply fetchAll(const std::string& url, int totalSeconds, size_t maxBytes,
                    const std::atomic<bool>* cancel, std::string* body);

// "%XX"-escapes everything but unreserved characters, for a query value.
std::string urlEscape(const std::string& text);
