// One HTTP request through libcurl, for the disc lookup, the covers, the
// radio's playlists and the networked speakers: HTTPS, redirects, a time-out
// for the whole request and a cap on what is kept.
#pragma once

#include <string>
#include <vector>

struct HttpResult {
    long status = 0;  // the last response's code; 0 when none came
    std::string body;
    std::string error;   // why no response came, or the body was too big
    int retryAfter = 0;  // seconds, from a Retry-After header
};

// The User-Agent every request carries: "kz/VERSION ( contact )".
const char* kzUserAgent();
HttpResult httpGet(const std::string& url, int timeoutSeconds, size_t maxBytes);
// A POST of body with extra header lines ("SOAPAction: ..."); no redirects.
HttpResult httpPost(const std::string& url, const std::string& body,
                    const std::vector<std::string>& headers, int timeoutSeconds, size_t maxBytes);

// ref taken relative to base ("http://h/a/b.pls" + "c.mp3" = "http://h/a/c.mp3").
std::string resolveUrl(const std::string& base, const std::string& ref);
bool isHttpUrl(const std::string& url);
