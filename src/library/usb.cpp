#include "library/usb.h"

#include <atomic>

#include "core/log.h"
#include "core/storage.h"
#include "library/library.h"
#include "library/scan.h"
#include "storage/jobs.h"
#include "web/web.h"

namespace {
std::atomic<int> shownPort{-1};
}

int usbLibraryPort() {
    return shownPort;
}

std::string usbLibraryRoot() {
    int port = shownPort;
    return port < 0 ? "" : usbDriveRoot(port);
}

void usbDriveArrived(int port) {
    if (shownPort >= 0) return;
    shownPort = port;
    startScanUSB(port);
}

bool usbDriveLeft(int port) {
    // Jobs reading or writing the drive end at their next file.
    storageDriveGone(usbDriveRoot(port));
    if (shownPort != port) return true;
    stopScanningUSB();
    if (isUSBScanThreadRunning()) return false;
    clearUSBDB();
    lib().usbPath.clear();
    shownPort = -1;
    kzLog("USB library cleared\n");
    webClientsRefresh();
    for (int other : kUsbPorts) {
        if (other != port && usbDrivePresent(other)) {
            usbDriveArrived(other);
            break;
        }
    }
    return true;
}
