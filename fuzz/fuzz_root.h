// A scratch library root for a fuzz target, made once; the library's log
// goes to /dev/null so that the fuzzer's own output stays readable.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "library/library.h"

inline std::string fuzzRoot() {
    static const std::string root = [] {
        char dir[] = "/tmp/kz-fuzz-XXXXXX";
        if (!mkdtemp(dir)) abort();
        if (!freopen("/dev/null", "w", stdout)) abort();
        initmdb(dir);
        return std::string(dir);
    }();
    return root;
}
