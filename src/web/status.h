// The status objects the web pages poll: "status" (everything) and
// "slowStatus" (without the keys that change every second).
#pragma once

#include <string>

// Appends text as the inside of a JSON string: quotes, backslashes and control
// characters escaped, so a reply always parses whatever a name holds.
void appendJsonText(std::string& out, const char* text);
// The same, inside its quotes: a whole JSON string.
std::string quoted(const char* text);
std::string getWebStatusCore(bool full);
