// Feeds arbitrary bytes to the CDDB client as a server's replies: a local
// listener answers the "cddb query" with the input's first part and every
// "cddb read" with the rest (split at the first NUL byte).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz/fuzz_root.h"
#include "ripping/lookup.h"

namespace {

std::mutex replyMutex;
std::string queryReply, readReply;

void serve(int listener) {
    for (;;) {
        int c = accept(listener, nullptr, nullptr);
        if (c < 0) continue;
        std::string request;
        char buf[2048];
        ssize_t n;
        while (request.find("\n\n") == std::string::npos &&
               request.find("\r\n\r\n") == std::string::npos &&
               (n = read(c, buf, sizeof buf)) > 0)
            request.append(buf, n);
        std::string body;
        {
            std::lock_guard<std::mutex> hold(replyMutex);
            body = request.find("cddb+read") != std::string::npos ? readReply : queryReply;
        }
        std::string reply = "HTTP/1.0 200 OK\r\n\r\n" + body;
        (void)!write(c, reply.data(), reply.size());
        close(c);
    }
}

int startServer() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(s, 16) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        abort();
    std::thread(serve, s).detach();
    return ntohs(a.sin_port);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzRoot();
    static const int port = [] {
        int p = startServer();
        std::string address = "http://127.0.0.1:" + std::to_string(p) + "/cddb";
        setenv("KZ_CDDB", address.c_str(), 1);
        return p;
    }();
    (void)port;
    std::string input(reinterpret_cast<const char*>(data), size);
    size_t nul = input.find('\0');
    {
        std::lock_guard<std::mutex> hold(replyMutex);
        queryReply = input.substr(0, nul);
        readReply = nul == std::string::npos ? "" : input.substr(nul + 1);
    }
    DiscKey key;
    key.discid = "x";
    key.cddbId = 0x0f000903;
    key.offsets = {150, 375, 600};
    key.seconds = 11;
    for (const Candidate& c : lookupCddb(key, 2))
        if (c.tracks.size() != 3) abort();
    return 0;
}
