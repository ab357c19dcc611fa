// Feeds arbitrary bytes to the record reader (through a socket, as the web
// server sends them) and every record's content to the parameter decoder.
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "web/fastcgi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
    (void)quiet;
    if (size > 200000) return 0;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
    // The whole input fits in the socket buffers, so one thread will do.
    int bufSize = 1 << 20;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &bufSize, sizeof bufSize);
    setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &bufSize, sizeof bufSize);
    size_t sent = 0;
    while (sent < size) {
        ssize_t n = write(fds[0], data + sent, size - sent);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    close(fds[0]);
    static uint8_t buffer[kFcgiBufferSize];
    int length = 0;
    int type;
    while ((type = getFcgiRecord(fds[1], buffer, &length)) != 0) {
        if (length < 0 || length > kFcgiMaxContent) abort();
        FcgiParams params;
        parseFcgiParams(buffer, length, &params);
        if (strnlen(params.requestUri, sizeof params.requestUri) >= sizeof params.requestUri)
            abort();
    }
    close(fds[1]);
    return 0;
}
