#include "web/fastcgi.h"

#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "core/log.h"

namespace {

constexpr char kHtmlHeader[] = "Content-Type:text/html;charset=UTF-8";
constexpr char kBinaryHeader[] = "Content-Type:application/octet-stream";

// A reply must be taken within a few seconds in all: a send time-out alone
// restarts with every partial write, so a client reading a trickle (or a
// big reply not at all) would hold the only listener many times longer.
constexpr auto kReplyTime = std::chrono::seconds(5);
thread_local std::chrono::steady_clock::time_point replyDeadline =
    std::chrono::steady_clock::time_point::max();

bool sendAll(int fd, const void* data, size_t len) {
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        if (replyDeadline != std::chrono::steady_clock::time_point::max()) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                replyDeadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            timeval t = {static_cast<time_t>(left.count() / 1000000),
                         static_cast<suseconds_t>(left.count() % 1000000)};
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
        }
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

void header(uint8_t* h, int type, int len) {
    h[0] = 1;
    h[1] = static_cast<uint8_t>(type);
    h[2] = 0;
    h[3] = 1;  // every answer carries request id 1
    h[4] = static_cast<uint8_t>(len >> 8);
    h[5] = static_cast<uint8_t>(len & 0xff);
    h[6] = 0;
    h[7] = 0;
}

// The reply header line ends in CR LF LF, as the web server has always
// been sent it.
std::string headerLine(const char* contentType) {
    char line[80];
    snprintf(line, sizeof line, "%s%c%c\n", contentType, 13, 10);
    return line;
}

thread_local std::chrono::steady_clock::time_point receiveDeadline =
    std::chrono::steady_clock::time_point::max();
constexpr auto kReceiveTime = std::chrono::seconds(5);

// recv, waiting no longer than the per-receive time-out or what is left
// before the request's deadline; a passed deadline reads as a closed peer.
ssize_t receive(int fd, void* p, size_t len, int flags) {
    auto wait = std::chrono::duration_cast<std::chrono::microseconds>(kReceiveTime);
    if (receiveDeadline != std::chrono::steady_clock::time_point::max()) {
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            receiveDeadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kzLog("getFcgiRecord () request not complete in time: connection dropped\n");
            errno = ETIMEDOUT;
            return -1;
        }
        wait = std::min(wait, left);
    }
    timeval t = {static_cast<time_t>(wait.count() / 1000000),
                 static_cast<suseconds_t>(wait.count() % 1000000)};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    return recv(fd, p, len, flags);
}

size_t recvAll(int fd, uint8_t* p, size_t len, bool* closed) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = receive(fd, p + got, len - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *closed = true;
            break;
        }
        got += static_cast<size_t>(n);
    }
    return got;
}

}  // namespace

void setFcgiReceiveDeadline(std::chrono::steady_clock::time_point deadline) {
    receiveDeadline = deadline;
}

int getFcgiRecord(int fd, uint8_t* buffer, int* length) {
    uint8_t h[8];
    bool closed = false;
    ssize_t n;
    size_t have = 0;
    // Byte by byte as they come: each wait is bounded by the deadline.
    do {
        n = receive(fd, h + have, 8 - have, 0);
        if (n > 0) have += static_cast<size_t>(n);
    } while ((n < 0 && errno == EINTR) || (n > 0 && have < 8));
    if (have == 8) n = 8;
    if (n != 8) {
        if (have > 0) n = static_cast<ssize_t>(have);
        if (n != 0)
            kzLog("getFcgiRecord () header wrong expected 8 bytes got = %d\n", static_cast<int>(n));
        *length = 0;
        return 0;
    }
    int contentLength = h[4] * 256 + h[5];
    int requestId = h[2] * 256 + h[3];
    if (requestId != 1) kzLog("*************** getFcgiRecord id=%d\n", requestId);

    size_t got = recvAll(fd, buffer, static_cast<size_t>(contentLength), &closed);
    if (closed && got < static_cast<size_t>(contentLength)) {
        kzLog("No data received during getFcgiRecord () body\n");
    }
    if (h[6] != 0 && !closed) {
        uint8_t scratch[256];
        recvAll(fd, scratch, h[6], &closed);
    }
    *length = contentLength;
    if (got < static_cast<size_t>(contentLength)) {
        kzLog("getFcgiRecord () body wrong expected %d got %d\n", contentLength,
              static_cast<int>(got));
        return 0;
    }
    return h[1];
}

long getFcgiLen(const uint8_t** p, const uint8_t* end) {
    if (*p >= end) return -1;
    if (!(**p & 0x80)) return *(*p)++;
    if (end - *p < 4) return -1;
    const uint8_t* b = *p;
    long len = (static_cast<long>(b[0] & 0x7f) << 24) | (static_cast<long>(b[1]) << 16) |
               (static_cast<long>(b[2]) << 8) | b[3];
    *p += 4;
    return len;
}

void fcgiStrNCpy(char* dst, size_t size, const uint8_t** p, size_t len) {
    size_t n = len < size - 1 ? len : size - 1;
    memcpy(dst, *p, n);
    dst[n] = 0;
    *p += len;
}

void parseFcgiParams(const uint8_t* buffer, int length, FcgiParams* params) {
    const uint8_t* p = buffer;
    const uint8_t* end = buffer + length;
    char name[kFcgiParamSize], value[kFcgiParamSize];
    while (p < end) {
        long nameLen = getFcgiLen(&p, end);
        long valueLen = getFcgiLen(&p, end);
        if (nameLen < 0 || valueLen < 0 || nameLen > end - p || valueLen > end - p - nameLen)
            return;
        fcgiStrNCpy(name, sizeof name, &p, static_cast<size_t>(nameLen));
        fcgiStrNCpy(value, sizeof value, &p, static_cast<size_t>(valueLen));
        if (strcmp(name, "REQUEST_URI") == 0) {
            memcpy(params->requestUri, value, sizeof value);
        } else if (strcmp(name, "CONTENT_LENGTH") == 0) {
            params->contentLength = strtol(value, nullptr, 10);
        }
    }
}

bool sendFcgiStdout(int fd, const void* data, int len) {
    uint8_t h[8];
    header(h, FCGI_STDOUT, len);
    return sendAll(fd, h, 8) && (len == 0 || sendAll(fd, data, static_cast<size_t>(len)));
}

bool sendFcgiStdout2(int fd, const char* head, const char* body) {
    size_t a = head ? strlen(head) : 0, b = body ? strlen(body) : 0;
    uint8_t h[8];
    header(h, FCGI_STDOUT, static_cast<int>(a + b));
    return sendAll(fd, h, 8) && sendAll(fd, head, a) && sendAll(fd, body, b);
}

bool sendFcgiStdout3(int fd, const char* head, const void* data, int len) {
    size_t a = strlen(head);
    uint8_t h[8];
    header(h, FCGI_STDOUT, static_cast<int>(a) + len);
    return sendAll(fd, h, 8) && sendAll(fd, head, a) && sendAll(fd, data, static_cast<size_t>(len));
}

bool sendFcgiEndRequest(int fd) {
    uint8_t r[16] = {};
    header(r, FCGI_END_REQUEST, 8);
    return sendAll(fd, r, sizeof r);
}

void fcgiReply2(int fd, const FcgiReply& reply) {
    replyDeadline = std::chrono::steady_clock::now() + kReplyTime;
    bool ok = true;
    if (reply.blob) {
        ok = sendFcgiStdout2(fd, headerLine(kBinaryHeader).c_str(), nullptr);
        const char* p = reply.text;
        for (long left = reply.blobLength; ok && left > 0;) {
            int n = left > kFcgiMaxContent ? kFcgiMaxContent : static_cast<int>(left);
            ok = sendFcgiStdout(fd, p, n);
            p += n;
            left -= n;
        }
    } else if (!reply.file) {
        // The reply must fit in one record with its header.
        std::string head = headerLine(kHtmlHeader);
        size_t room = kFcgiMaxContent - head.size();
        if (strlen(reply.text) > room) {
            kzLog("fcgiReply2 () reply of %zu bytes cut to %zu\n", strlen(reply.text), room);
            std::string cut(reply.text, room);
            ok = sendFcgiStdout2(fd, head.c_str(), cut.c_str());
        } else {
            ok = sendFcgiStdout2(fd, head.c_str(), reply.text);
        }
    } else {
        ok = sendFcgiStdout2(fd, headerLine(kBinaryHeader).c_str(), nullptr);
        std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(reply.text, "rb"), fclose);
        if (f) {
            static thread_local char chunk[kFcgiMaxContent];
            size_t n;
            while (ok && (n = fread(chunk, 1, sizeof chunk, f.get())) > 0) {
                ok = sendFcgiStdout(fd, chunk, static_cast<int>(n));
            }
        }
    }
    if (ok) ok = sendFcgiStdout(fd, nullptr, 0);
    if (ok) ok = sendFcgiEndRequest(fd);
    replyDeadline = std::chrono::steady_clock::time_point::max();
    if (!ok) {
        kzLog("fcgiReply2 () the client did not take the reply\n");
        // Nothing more is read from a client that cannot be answered.
        shutdown(fd, SHUT_RDWR);
    }
}
