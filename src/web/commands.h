// The web command set: the first command name (in a fixed order) that occurs
// anywhere in the request URI picks the handler. Commands whose parts are not
// built yet are known by name and answered "thanks\n".
#pragma once

#include <string>
#include <vector>

#include "web/fastcgi.h"

void webDispatch(const char* uri, FcgiReply* reply);
// The command names in dispatch order.
std::vector<std::string> webCommandNames();

// "id=" anywhere in the text, then a decimal number; -1 when absent.
int getIdParameter(const char* text);
// name directly at *position: reads the digits after it (none is 0) and moves
// *position past them. 0 when the name is not there.
int getNumericParameter(const char** position, const char* name, int* result);
long long findLongNumericParameter(const char* text, const char* name, int* found);
// An optional "-" and digits after name, anywhere in text; 0 when absent.
int getSignedNumber(const char* text, const char* name);
