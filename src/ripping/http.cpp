#include "ripping/http.h"

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#ifndef KZ_VERSION
#define KZ_VERSION "0"
#endif

namespace {

struct Sink {
    HttpResult* result;
    size_t maxBytes;
    bool tooBig = false;
};

size_t takeBody(char* data, size_t size, size_t n, void* user) {
    Sink* sink = static_cast<Sink*>(user);
    size_t bytes = size * n;
    if (sink->result->body.size() + bytes > sink->maxBytes) {
        sink->tooBig = true;
        return 0;  // ends the transfer
    }
    sink->result->body.append(data, bytes);
    return bytes;
}

size_t takeHeader(char* data, size_t size, size_t n, void* user) {
    HttpResult* result = static_cast<HttpResult*>(user);
    size_t bytes = size * n;
    static const char kRetry[] = "retry-after:";
    if (bytes > sizeof kRetry && strncasecmp(data, kRetry, sizeof kRetry - 1) == 0)
        result->retryAfter = atoi(std::string(data + sizeof kRetry - 1, bytes - (sizeof kRetry - 1)).c_str());
    return bytes;
}

}  // namespace

const char* kzUserAgent() {
    return "kz/" KZ_VERSION " ( kz music server; https://musicbrainz.org/doc/MusicBrainz_API )";
}

HttpResult httpGet(const std::string& url, int timeoutSeconds, size_t maxBytes) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    HttpResult result;
    CURL* curl = curl_easy_init();
    if (!curl) {
        result.error = "cannot start a request";
        return result;
    }
    Sink sink{&result, maxBytes};
    char why[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_USERAGENT, kzUserAgent());
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(timeoutSeconds));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeoutSeconds));
    // Threads of ours must never see a signal from a resolver time-out.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, takeBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, why);
    CURLcode rc = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_cleanup(curl);
    if (sink.tooBig) {
        result.error = "reply larger than " + std::to_string(maxBytes) + " bytes";
    } else if (rc != CURLE_OK) {
        result.error = why[0] ? why : curl_easy_strerror(rc);
    }
    if (!result.error.empty()) result.body.clear();
    return result;
}
