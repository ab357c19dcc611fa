// Feeds arbitrary bytes to the settings reader as the kzsettings file, and
// writes what it read back out.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "core/storage.h"
#include "fuzz/fuzz_root.h"
#include "library/library.h"
#include "library/settings.h"

namespace {

std::string setUp() {
    fuzzRoot();
    storageMedium = STORAGE_HDD;
    return getSettingsPath();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = setUp();
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) abort();
    fwrite(data, 1, size, f);
    fclose(f);
    resetSettings();
    if (loadSettings() != 1) abort();
    if (getKnownWifiCount() > kMaxWifi) abort();
    flushSettingsRaw();
    return 0;
}
