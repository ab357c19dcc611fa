#include "web/fastcgi.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "web/params.h"

namespace {

struct Record {
    int type;
    int id;
    std::string content;
};

// Everything written to one end of a socket pair, split into records.
std::vector<Record> replyRecords(const FcgiReply& reply) {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::string bytes;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = read(fds[1], buf, sizeof buf)) > 0)
            bytes.append(buf, static_cast<size_t>(n));
    });
    fcgiReply2(fds[0], reply);
    close(fds[0]);
    reader.join();
    close(fds[1]);
    std::vector<Record> records;
    size_t at = 0;
    while (at + 8 <= bytes.size()) {
        const auto* h = reinterpret_cast<const uint8_t*>(bytes.data() + at);
        int len = h[4] * 256 + h[5];
        records.push_back(
            {h[1], h[2] * 256 + h[3], bytes.substr(at + 8, static_cast<size_t>(len))});
        at += 8 + static_cast<size_t>(len) + h[6];
    }
    EXPECT_EQ(at, bytes.size());
    return records;
}

TEST(FcgiReply, TextBlobAndFileModes) {
    FcgiReply text;
    text.text = "{\"a\":1}";
    auto r = replyRecords(text);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].content, "Content-Type:text/html;charset=UTF-8\r\n\n{\"a\":1}");
    EXPECT_EQ(r[1].type, FCGI_STDOUT);
    EXPECT_EQ(r[1].content, "");
    EXPECT_EQ(r[2].type, FCGI_END_REQUEST);
    EXPECT_EQ(r[2].content, std::string(8, '\0'));
    for (const Record& rec : r)
        EXPECT_EQ(rec.id, 1);

    // A blob of exactly two full records: header, two records, the empty one.
    std::string data(2 * 65535, 'b');
    data[65535] = 'B';
    FcgiReply blob;
    blob.blob = true;
    blob.text = data.data();
    blob.blobLength = static_cast<long>(data.size());
    r = replyRecords(blob);
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[0].content, "Content-Type:application/octet-stream\r\n\n");
    EXPECT_EQ(r[1].content.size(), 65535u);
    EXPECT_EQ(r[2].content[0], 'B');
    EXPECT_EQ(r[3].content, "");
    EXPECT_EQ(r[4].type, FCGI_END_REQUEST);

    // A file is streamed in records of at most 65,535 bytes; a missing one
    // gives the header and no body.
    std::string path = testing::TempDir() + "kz-fcgi-file";
    std::ofstream(path) << std::string(70000, 'f');
    FcgiReply file;
    file.file = true;
    file.text = path.c_str();
    r = replyRecords(file);
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[1].content.size() + r[2].content.size(), 70000u);
    unlink(path.c_str());
    r = replyRecords(file);
    ASSERT_EQ(r.size(), 3u);
}

TEST(FcgiParams, LengthsTruncationAndLies) {
    auto pair = [](const std::string& n, const std::string& v) {
        std::string out;
        for (size_t len : {n.size(), v.size()}) {
            if (len < 128) {
                out += static_cast<char>(len);
            } else {
                out += static_cast<char>(0x80 | (len >> 24));
                out += static_cast<char>((len >> 16) & 0xff);
                out += static_cast<char>((len >> 8) & 0xff);
                out += static_cast<char>(len & 0xff);
            }
        }
        return out + n + v;
    };
    std::string rec = pair("HTTP_LONG", std::string(5000, 'x')) +
                      pair("REQUEST_URI", "/api/a%20b") + pair("CONTENT_LENGTH", "123");
    FcgiParams p;
    parseFcgiParams(reinterpret_cast<const uint8_t*>(rec.data()), static_cast<int>(rec.size()), &p);
    EXPECT_STREQ(p.requestUri, "/api/a%20b");
    EXPECT_EQ(p.contentLength, 123);

    // A long URI is cut to 1,999 bytes; a pair that claims more than is
    // there ends the decoding without reading past the record.
    FcgiParams q;
    std::string longUri = pair("REQUEST_URI", std::string(3000, 'u')) + "\x7f\x7f" + "short";
    parseFcgiParams(reinterpret_cast<const uint8_t*>(longUri.data()),
                    static_cast<int>(longUri.size()), &q);
    EXPECT_EQ(strlen(q.requestUri), 1999u);

    char out[16];
    stripPercentagesFromURL(out, "a%41%zz+b&c", sizeof out);
    EXPECT_STREQ(out, "aA%zz+b");
    stripPercentagesFromURLTail(out, "x%26y&z", sizeof out);
    EXPECT_STREQ(out, "x&y&z");
    stripPercentagesFromURL(out, "0123456789abcdefghij", sizeof out);
    EXPECT_STREQ(out, "0123456789abcde");
}

}  // namespace
