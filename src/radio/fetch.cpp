#include "radio/fetch.h"

#include <curl/curl.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "core/http.h"

namespace {

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct SlistDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

struct Transfer {
    CURL* curl = nullptr;
    FetchReply reply;
    const FetchSink* sink = nullptr;
    const std::atomic<bool>* cancel = nullptr;
    size_t maxBytes = 0;
    bool refused = false;
    bool tooBig = false;
};

std::string headerValue(const char* data, size_t bytes, size_t nameLength) {
    std::string v(data + nameLength, bytes - nameLength);
    size_t b = v.find_first_not_of(" \t");
    size_t e = v.find_last_not_of(" \t\r\n");
    return b == std::string::npos ? "" : v.substr(b, e - b + 1);
}

bool headerIs(const char* data, size_t bytes, const char* name) {
    size_t n = strlen(name);
    return bytes > n && strncasecmp(data, name, n) == 0;
}

size_t onHeader(char* data, size_t size, size_t n, void* user) {
    Transfer* t = static_cast<Transfer*>(user);
    size_t bytes = size * n;
    // Each response of a redirect chain starts over.
    if (headerIs(data, bytes, "HTTP/") || headerIs(data, bytes, "ICY ")) {
        t->reply.contentType.clear();
        t->reply.icyName.clear();
        t->reply.metaint = 0;
    } else if (headerIs(data, bytes, "content-type:")) {
        std::string v = headerValue(data, bytes, 13);
        v = v.substr(0, v.find(';'));
        while (!v.empty() && isspace(static_cast<unsigned char>(v.back())))
            v.pop_back();
        for (char& c : v)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        t->reply.contentType = v;
    } else if (headerIs(data, bytes, "icy-metaint:")) {
        long v = atol(headerValue(data, bytes, 12).c_str());
        // A block is at most 4080 bytes; an interval outside reason is a
        // broken server, and splitting by it would feed metadata as audio.
        t->reply.metaint = v > 0 && v <= 1 << 20 ? v : 0;
    } else if (headerIs(data, bytes, "icy-name:")) {
        t->reply.icyName = headerValue(data, bytes, 9);
    }
    return bytes;
}

size_t onBody(char* data, size_t size, size_t n, void* user) {
    Transfer* t = static_cast<Transfer*>(user);
    size_t bytes = size * n;
    if (t->maxBytes && t->reply.bytes + bytes > t->maxBytes) {
        t->tooBig = true;
        return 0;
    }
    if (t->reply.bytes == 0) {
        // The address the body comes from, for relative addresses in it.
        char* effective = nullptr;
        if (curl_easy_getinfo(t->curl, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective)
            t->reply.effectiveUrl = effective;
        curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &t->reply.status);
    }
    t->reply.bytes += bytes;
    if (!(*t->sink)(t->reply, data, bytes)) {
        t->refused = true;
        return 0;
    }
    return bytes;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Transfer* t = static_cast<Transfer*>(user);
    return t->cancel && t->cancel->load() ? 1 : 0;
}

}  // namespace

FetchReply fetchStream(const std::string& url, const FetchOptions& options,
                       const std::atomic<bool>* cancel, const FetchSink& sink) {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    Transfer t;
    t.sink = &sink;
    t.cancel = cancel;
    t.maxBytes = options.maxBytes;
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    if (!curl) {
        t.reply.error = "cannot start a request";
        return t.reply;
    }
    CURL* c = curl.get();
    t.curl = c;
    std::unique_ptr<curl_slist, SlistDeleter> headers;
    if (options.icy) headers.reset(curl_slist_append(nullptr, "Icy-MetaData: 1"));
    char why[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_USERAGENT, kzUserAgent());
    if (headers) curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, 8L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, static_cast<long>(options.connectSeconds));
    if (options.totalSeconds > 0)
        curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(options.totalSeconds));
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.stallSeconds));
    // SHOUTcast servers answer "ICY 200 OK"; curl takes it as HTTP/0.9-like.
    curl_easy_setopt(c, CURLOPT_HTTP09_ALLOWED, 1L);
    curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, &t);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, why);
    CURLcode rc = curl_easy_perform(c);
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &t.reply.status);
    char* effective = nullptr;
    if (curl_easy_getinfo(c, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective)
        t.reply.effectiveUrl = effective;
    if (t.reply.effectiveUrl.empty()) t.reply.effectiveUrl = url;
    if (cancel && cancel->load()) {
        t.reply.cancelled = true;
        t.reply.error = "cancelled";
    } else if (t.tooBig) {
        t.reply.error = "reply larger than " + std::to_string(t.maxBytes) + " bytes";
    } else if (t.refused) {
        // The sink ended it; not a fault of the transfer.
    } else if (rc != CURLE_OK) {
        t.reply.error = why[0] ? why : curl_easy_strerror(rc);
        t.reply.permanent = rc == CURLE_TOO_MANY_REDIRECTS || rc == CURLE_UNSUPPORTED_PROTOCOL ||
                            rc == CURLE_URL_MALFORMAT;
    }
    return t.reply;
}

FetchReply fetchAll(const std::string& url, int totalSeconds, size_t maxBytes,
                    const std::atomic<bool>* cancel, std::string* body) {
    body->clear();
    FetchOptions options;
    options.totalSeconds = totalSeconds;
    options.maxBytes = maxBytes;
    options.stallSeconds = totalSeconds > 0 && totalSeconds < 10 ? totalSeconds : 10;
    options.connectSeconds = options.stallSeconds;
    return fetchStream(url, options, cancel,
                       [body](const FetchReply&, const char* data, size_t length) {
                           body->append(data, length);
                           return true;
                       });
}

std::string urlEscape(const std::string& text) {
    std::string out;
    static const char kHex[] = "0123456789ABCDEF";
    for (unsigned char c : text) {
        if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}
