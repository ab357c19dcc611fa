// One HTTP GET for the disc lookup and the covers, through libcurl: HTTPS,
// redirects, a time-out for the whole request and a cap on what is kept.
#pragma once

#include <string>

struct HttpResult {
    long status = 0;        // the last response's code; 0 when none came
    std::string body;
    std::string error;      // why no response came, or the body was too big
    int retryAfter = 0;     // seconds, from a Retry-After header
};

// The User-Agent every request carries: "kz/VERSION ( contact )".
const char* kzUserAgent();
HttpResult httpGet(const std::string& url, int timeoutSeconds, size_t maxBytes);
