// The responder side of FastCGI, as the local web server speaks it to us:
// records of an 8-byte header (big-endian lengths) and content, name-value
// parameters, and replies as STDOUT records ended by END_REQUEST.
#pragma once

#include <chrono>

#include <cstddef>
#include <cstdint>
#include <string>

enum FcgiType {
    FCGI_BEGIN_REQUEST = 1,
    FCGI_END_REQUEST = 3,
    FCGI_PARAMS = 4,
    FCGI_STDIN = 5,
    FCGI_STDOUT = 6,
};

constexpr int kFcgiBufferSize = 65536;
constexpr int kFcgiMaxContent = 65535;
constexpr int kFcgiParamSize = 2000;

// Reads one record's content into buffer (kFcgiBufferSize bytes). Returns its
// type, or 0 at the end of the connection or on any error.
int getFcgiRecord(int fd, uint8_t* buffer, int* length);
// Until a request has been read up to its dispatch, the client has this
// long in all (a client sending a byte every few seconds would otherwise
// hold the only listener for good); a body then streams on with only the
// per-receive time-out. max() lifts the deadline.
void setFcgiReceiveDeadline(std::chrono::steady_clock::time_point deadline);

// The parameters this responder cares about.
struct FcgiParams {
    char requestUri[kFcgiParamSize] = {};
    long contentLength = 0;
};
// A length: one byte (top bit clear) or four bytes, big-endian, 31 bits.
// Returns -1 when the bytes run out.
long getFcgiLen(const uint8_t** p, const uint8_t* end);
// Copies len bytes at *p (at most size - 1 kept, terminated) and advances *p
// by all of them.
void fcgiStrNCpy(char* dst, size_t size, const uint8_t** p, size_t len);
// Decodes every pair of a PARAMS record; stops quietly at a pair that claims
// more bytes than the record holds.
void parseFcgiParams(const uint8_t* buffer, int length, FcgiParams* params);

// Writers; each returns false when the peer went away.
bool sendFcgiStdout(int fd, const void* data, int len);
bool sendFcgiStdout2(int fd, const char* head, const char* body);
bool sendFcgiStdout3(int fd, const char* head, const void* data, int len);
bool sendFcgiEndRequest(int fd);

// How a command's reply goes out.
struct FcgiReply {
    const char* text = "thanks\n";
    bool blob = false;  // text points at blobLength bytes of data
    long blobLength = 0;
    bool file = false;  // text is the path of a file to send
};
// The whole response: header, content in records of at most 65,535 bytes,
// the empty STDOUT and END_REQUEST.
void fcgiReply2(int fd, const FcgiReply& reply);
