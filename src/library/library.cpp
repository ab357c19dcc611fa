#include "library/library.h"

namespace {
std::string localPath;
}

void initmdb(const std::string& path) {
    localPath = path;
}
const std::string& getLocalPath() {
    return localPath;
}
void loadPreloadedMedia(int) {}
int startLoadOrScan() {
    return 1;
}
void saveDBifChanged() {}
bool postWriteDB() {
    return false;
}
bool isCleanupRunning() {
    return false;
}
void stopCleanup() {}
