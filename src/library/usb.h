// The USB library follows the drives: it shows the first drive plugged in,
// is scanned in the background when that drive appears, and is emptied when
// it goes (then the other drive, if one is left, is scanned).
#pragma once

#include <string>

// The port whose drive the USB library shows, or -1.
int usbLibraryPort();
// The folder of the drive the USB library shows, or "".
std::string usbLibraryRoot();

// Called by the mount poll on the main thread.
void usbDriveArrived(int port);
// False while the drive's scan is still ending: the tables must outlive it,
// so the poll asks again a second later.
bool usbDriveLeft(int port);
