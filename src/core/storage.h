// The music storage: which medium holds the library, chosen once at start-up.
#pragma once

#include <array>
#include <string>
#include <vector>

enum StorageMedium { STORAGE_NONE = 0, STORAGE_HDD = 1, STORAGE_SD = 2 };

extern int storageMedium;
extern int hddpresent;
// A disk-capacity query is running.
extern int dfBusy;
extern int dfBusyFlash;

int getStorageMedium();
bool noStorage();
bool hddStorage();
bool sdStorage();

const char* getHddDevice();
const char* getHddDeviceAndPartition();

// 1 for a high-speed USB bus, 0 for the low-speed board (host mode: 1).
int getUSBSpeed();
// The SD card's size in megabytes (host mode: no card, 0).
long getSDSize();

// Mounts what it can and chooses the medium; starts the library's load.
void initDisks();

// Unmounts the internal disk, the USB disks and the SD partition, in this
// order, ignoring failures (host mode: nothing is mounted).
void unmountAll();
void standby_internalhdd();

// USB drives. The first drive plugged in is mounted at "/media/usba", a
// second at "/media/usbc"; each keeps its place while it stays. In host mode
// a folder appearing at $KZ_ROOT/media/usba (or usbc) is a drive plugged in,
// and its removal the drive pulled out.
constexpr int kUsbPortCount = 2;
constexpr int kUsbPorts[kUsbPortCount] = {0, 2};

struct UsbDrive {
    int port = -1;
    std::string root;  // where it is mounted (host mode: under KZ_ROOT)
    std::string name;  // the file system's label, or the mount point's name
    long long freeBytes = 0;
    long long sizeBytes = 0;
};

// The drives mounted now, in port order.
std::vector<UsbDrive> usbDrives();
bool usbDrivePresent(int port);
// The folder of a port, present or not: hostPath("/media/usba").
std::string usbDriveRoot(int port);
// The port of a mount point's letter ("usba" or "a"), or -1.
int usbPortByName(const std::string& name);

// Once a second from the main loop: notices drives arriving and leaving,
// mounts and unmounts them, and tells the USB library (posting event 80).
void pollUSBMounting();

// The mount decisions, apart from the kernel so that they can be tested on a
// folder shaped like /sys/block.
struct BlockDevice {
    std::string name;                     // "sdb"
    bool usb = false;                     // attached through USB
    std::vector<std::string> partitions;  // "sdb1", ... in order
};
// Mounts a drive of any file system the box reads (vfat, exFAT, NTFS, ext),
// never letting it run programs or hold devices; type tells which it was.
bool mountUsbDevice(const std::string& node, const std::string& mountPoint, std::string* type);
std::vector<BlockDevice> readBlockDevices(const std::string& sysBlock);
// The node to mount: the first partition, or the whole disk when it has none.
std::string usbDeviceNode(const BlockDevice& d);
// Which node each mount point should hold: a drive that stays keeps its
// place, a new one takes the first free place, the internal disk is never
// taken, and a third drive waits for a free place.
std::array<std::string, kUsbPortCount> planUsbMounts(
    const std::vector<BlockDevice>& devices, const std::array<std::string, kUsbPortCount>& current,
    const std::string& internalDisk);
