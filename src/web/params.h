// Reading parameters out of a request URI ("/api/upload&artist=Nina%20Simone").
#pragma once

#include <cstddef>
#include <string>

// Copies src into dst until its end, a "&" or size - 1 bytes, turning "%"
// and two hexadecimal digits into that byte; any other "%" stays as it is.
void stripPercentagesFromURL(char* dst, const char* src, size_t size);
// The same, but "&" does not end the value (a last parameter may hold one).
void stripPercentagesFromURLTail(char* dst, const char* src, size_t size);
// The upload's artist name: as stripPercentagesFromURL, 200 bytes.
std::string stripPercentagesFromLine(const char* src);
// Where the value of name ("&artist=") starts in uri, or null.
const char* findParameter(const char* uri, const char* name);
