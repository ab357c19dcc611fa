#include "core/http.h"

#include <curl/curl.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

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
        result->retryAfter =
            atoi(std::string(data + sizeof kRetry - 1, bytes - (sizeof kRetry - 1)).c_str());
    return bytes;
}

}  // namespace

const char* kzUserAgent() {
    return "kz/" KZ_VERSION " ( kz music server; https://musicbrainz.org/doc/MusicBrainz_API )";
}

namespace {

struct HeaderList {
    curl_slist* list = nullptr;
    ~HeaderList() { curl_slist_free_all(list); }
};

HttpResult perform(const std::string& url, const std::string* post,
                   const std::vector<std::string>& headers, int timeoutSeconds, size_t maxBytes) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    HttpResult result;
    CURL* curl = curl_easy_init();
    if (!curl) {
        result.error = "cannot start a request";
        return result;
    }
    HeaderList extra;
    for (const std::string& h : headers)
        extra.list = curl_slist_append(extra.list, h.c_str());
    Sink sink{&result, maxBytes};
    char why[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_USERAGENT, kzUserAgent());
    if (extra.list) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, extra.list);
    if (post) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, post->data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(post->size()));
    } else {
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    }
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

}  // namespace

HttpResult httpGet(const std::string& url, int timeoutSeconds, size_t maxBytes) {
    return perform(url, nullptr, {}, timeoutSeconds, maxBytes);
}

HttpResult httpPost(const std::string& url, const std::string& body,
                    const std::vector<std::string>& headers, int timeoutSeconds, size_t maxBytes) {
    return perform(url, &body, headers, timeoutSeconds, maxBytes);
}

bool isHttpUrl(const std::string& url) {
    return strncasecmp(url.c_str(), "http://", 7) == 0 ||
           strncasecmp(url.c_str(), "https://", 8) == 0;
}

std::string resolveUrl(const std::string& base, const std::string& ref) {
    if (ref.empty()) return ref;
    // Anything with a scheme of its own stands alone (and is then judged).
    size_t colon = ref.find(':');
    if (colon != std::string::npos && ref.find_first_of("/?#") > colon) {
        bool scheme = isalpha(static_cast<unsigned char>(ref[0]));
        for (size_t i = 0; i < colon && scheme; i++)
            scheme = isalnum(static_cast<unsigned char>(ref[i])) || strchr("+-.", ref[i]);
        if (scheme) return ref;
    }
    size_t schemeEnd = base.find("://");
    if (schemeEnd == std::string::npos) return ref;
    if (ref.compare(0, 2, "//") == 0) return base.substr(0, schemeEnd + 1) + ref;
    size_t hostEnd = base.find_first_of("/?#", schemeEnd + 3);
    std::string origin = base.substr(0, hostEnd);
    if (ref[0] == '/') return origin + ref;
    std::string path = hostEnd == std::string::npos
                           ? "/"
                           : base.substr(hostEnd, base.find_first_of("?#", hostEnd) - hostEnd);
    if (ref[0] == '?') return origin + path + ref;
    path = path.substr(0, path.rfind('/') + 1);
    std::string joined = path + ref;
    // Fold "./" and "../" so that the same segment is always the same address.
    std::vector<std::string> parts;
    size_t queryAt = joined.find_first_of("?#");
    std::string query = queryAt == std::string::npos ? "" : joined.substr(queryAt);
    std::string walk = joined.substr(0, queryAt);
    size_t at = 1;
    while (at <= walk.size()) {
        size_t slash = walk.find('/', at);
        if (slash == std::string::npos) slash = walk.size();
        std::string part = walk.substr(at, slash - at);
        bool last = slash == walk.size();
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
            if (last) parts.push_back("");
        } else if (part == ".") {
            if (last) parts.push_back("");
        } else {
            parts.push_back(part);
        }
        at = slash + 1;
    }
    std::string out = origin;
    for (const std::string& p : parts)
        out += "/" + p;
    if (parts.empty()) out += "/";
    return out + query;
}
