#include "core/storage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>

#include "core/appliance.h"
#include "core/events.h"
#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "core/shutdown.h"
#include "library/database.h"
#include "library/library.h"
#include "library/usb.h"

int storageMedium = STORAGE_NONE;
int hddpresent = 0;
int dfBusy = 0;
int dfBusyFlash = 0;

int getStorageMedium() {
    return storageMedium;
}
bool noStorage() {
    return storageMedium == STORAGE_NONE;
}
bool hddStorage() {
    return storageMedium == STORAGE_HDD;
}
bool sdStorage() {
    return storageMedium == STORAGE_SD;
}

const char* getHddDevice() {
    return "/dev/sda";
}
const char* getHddDeviceAndPartition() {
    return "/dev/sda1";
}

namespace {

// A folder is a mount point when it lies on another device than its parent.
bool isMountPoint(const std::string& path) {
    struct stat st, parent;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (stat((path + "/..").c_str(), &parent) != 0) return false;
    return st.st_dev != parent.st_dev;
}

void createMountPoint(const char* fixed) {
    std::string path = hostPath(fixed);
    if (isFolder(path)) return;
    kzLog("**** Creating mount point: %s ****\n", fixed);
    if (isHostMode()) {
        // The root may not have its /media yet.
        mkdir(hostPath("/media").c_str(), 0777);
    }
    if (mkdir(path.c_str(), 0777) != 0)
        kzLog("Cannot create %s: %s\n", path.c_str(), strerror(errno));
}

int sdPartitionCount() {
    int count = 0;
    DIR* d = opendir("/sys/block/mmcblk0");
    if (!d) return 0;
    while (dirent* e = readdir(d)) {
        if (strncmp(e->d_name, "mmcblk0p", 8) == 0) count++;
    }
    closedir(d);
    return count;
}

void unmount(const char* fixed) {
    if (isHostMode()) {
        hostSkip(std::string("unmount ") + fixed);
        return;
    }
    umount2(fixed, 0);
}

bool writeSmallFile(const char* path, const char* text, size_t len) {
    int fd = open(path, O_WRONLY);
    if (fd < 0) return false;
    bool ok = write(fd, text, len) == static_cast<ssize_t>(len);
    close(fd);
    return ok;
}

// Host mode judges storage by the folders that existed before start-up made
// the missing mount points.
struct HostStorage {
    bool hdd;
    bool sd;
};

HostStorage judgeHostStorage() {
    return {isFolder(hostPath("/media/hdd1")), isFolder(hostPath("/media/sd3"))};
}

// What the USB mounting finds of the internal disk.
void initUSBMounting(const HostStorage& host) {
    if (isHostMode()) {
        hostSkip("USB mounting");
        hddpresent = host.hdd ? 1 : 0;
        return;
    }
    hddpresent = isMountPoint("/media/hdd1") ? 1 : 0;
}

bool mountSD(const HostStorage& host) {
    if (isHostMode()) {
        hostSkip("mount /dev/mmcblk0p3 on /media/sd3");
        if (!host.sd) kzLog("%s did not mount\n", "/dev/mmcblk0p3");
        return host.sd;
    }
    if (mount("/dev/mmcblk0p3", "/media/sd3", "vfat", 0, "utf8") != 0 && errno != EBUSY) {
        kzLog("%s did not mount\n", "/dev/mmcblk0p3");
        umount2("/media/sd3", 0);
        return false;
    }
    return true;
}

}  // namespace

int getUSBSpeed() {
    if (isHostMode()) return 1;
    std::ifstream f("/sys/bus/usb/devices/usb1/speed");
    int mbits = 0;
    if (!(f >> mbits)) return 1;
    return mbits >= 480 ? 1 : 0;
}

long getSDSize() {
    if (isHostMode()) {
        hostSkip("SD card size (no SD card)");
        return 0;
    }
    std::ifstream f("/sys/block/mmcblk0/size");
    long long sectors = 0;
    if (!(f >> sectors)) return 0;
    return static_cast<long>(sectors * 512 / 1000000);
}

void initDisks() {
    HostStorage host = judgeHostStorage();

    kzLog("initDisks ()\n");
    hddpresent = 0;
    initUSBMounting(host);
    int lowSpeed = getUSBSpeed() == 0 ? 1 : 0;
    kzLog("initDisks () lowSpeed=%d\n", lowSpeed);

    if (lowSpeed && sdPartitionCount() != 3) createThirdSDPartition();

    createMountPoint("/media/hdd1");
    createMountPoint("/media/sd3");

    bool sdMounted = mountSD(host);
    if (sdMounted) prepareSD();

    if (lowSpeed || (sdMounted && fileExists(hostPath("/media/sd3/cookie"))) ||
        (sdMounted && !hddpresent)) {
        storageMedium = STORAGE_SD;
        initmdb(hostPath("/media/sd3"));
        loadPreloadedMedia(1);
        startLoadOrScan();
    } else if (hddpresent) {
        kzLog("starting initmdb\n");
        storageMedium = STORAGE_HDD;
        initmdb(hostPath("/media/hdd1"));
        startLoadOrScan();
    } else if (getSDSize() > 4000) {
        kzLog("Preparing Third Partition\n");
        if (createThirdSDPartition()) endProcess(EXIT_RESTART);
        // Restarting without a new partition would only loop.
        kzLog("initDisks () third partition not made, running without storage\n");
        storageMedium = STORAGE_NONE;
    } else {
        storageMedium = STORAGE_NONE;
    }

    if (lowSpeed) {
        if (isHostMode()) {
            hostSkip("unmount /media/hdd1 and unbind USBC");
        } else {
            kzLog("Unmounting internal HDD result %d\n", umount2("/media/hdd1", 0));
            kzLog("Unbinding USBC\n");
            writeSmallFile("/sys/bus/usb/drivers/usb/unbind", "1-1.3.3.5\n", 10);
        }
    }

    kzLog("nowDoCD:\n");
    if (isHostMode()) {
        hostSkip("write to /proc/sys/kernel/core_pattern");
    } else {
        writeSmallFile("/proc/sys/kernel/core_pattern", "core", 4);
        kzLog("/proc/sys/kernel/core_pattern set to %s\n", "core");
    }
}

void unmountAll() {
    unmount("/media/hdd1");
    unmount("/media/usba");
    unmount("/media/usbc");
    unmount("/media/sd3");
}

// Spinning the disk down belongs to the storage subsystem, not built yet.
void standby_internalhdd() {
    if (isHostMode()) hostSkip("internal disk standby");
}

// ---- USB drives ----

std::string usbDriveRoot(int port) {
    std::string fixed = "/media/usb";
    fixed += static_cast<char>('a' + (port < 0 || port > 25 ? 0 : port));
    return hostPath(fixed);
}

int usbPortByName(const std::string& name) {
    std::string n = name;
    if (n.rfind("usb", 0) == 0) n = n.substr(3);
    for (int port : kUsbPorts) {
        if (n.size() == 1 && n[0] == 'a' + port) return port;
    }
    return -1;
}

std::vector<BlockDevice> readBlockDevices(const std::string& sysBlock) {
    std::vector<BlockDevice> devices;
    DIR* d = opendir(sysBlock.c_str());
    if (!d) return devices;
    while (dirent* e = readdir(d)) {
        if (strncmp(e->d_name, "sd", 2) != 0) continue;
        BlockDevice dev;
        dev.name = e->d_name;
        std::string path = sysBlock + "/" + dev.name;
        // The link into /sys/devices names the bus the disk hangs from.
        char target[512];
        ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        if (n > 0) {
            target[n] = '\0';
            dev.usb = strstr(target, "/usb") != nullptr;
        }
        if (DIR* p = opendir(path.c_str())) {
            while (dirent* q = readdir(p)) {
                if (strncmp(q->d_name, dev.name.c_str(), dev.name.size()) == 0 &&
                    q->d_name[dev.name.size()] >= '0' && q->d_name[dev.name.size()] <= '9') {
                    dev.partitions.push_back(q->d_name);
                }
            }
            closedir(p);
        }
        // sdb10 after sdb2.
        std::sort(dev.partitions.begin(), dev.partitions.end(),
                  [](const std::string& a, const std::string& b) {
                      return a.size() != b.size() ? a.size() < b.size() : a < b;
                  });
        devices.push_back(std::move(dev));
    }
    closedir(d);
    std::sort(devices.begin(), devices.end(),
              [](const BlockDevice& a, const BlockDevice& b) { return a.name < b.name; });
    return devices;
}

std::string usbDeviceNode(const BlockDevice& d) {
    return "/dev/" + (d.partitions.empty() ? d.name : d.partitions.front());
}

std::array<std::string, kUsbPortCount> planUsbMounts(
    const std::vector<BlockDevice>& devices, const std::array<std::string, kUsbPortCount>& current,
    const std::string& internalDisk) {
    std::vector<std::string> wanted;
    for (const BlockDevice& d : devices) {
        if (!d.usb || "/dev/" + d.name == internalDisk) continue;
        wanted.push_back(usbDeviceNode(d));
    }
    std::array<std::string, kUsbPortCount> plan;
    for (int i = 0; i < kUsbPortCount; i++) {
        if (!current[i].empty() &&
            std::find(wanted.begin(), wanted.end(), current[i]) != wanted.end()) {
            plan[i] = current[i];
        }
    }
    for (const std::string& node : wanted) {
        if (std::find(plan.begin(), plan.end(), node) != plan.end()) continue;
        for (std::string& place : plan) {
            if (place.empty()) {
                place = node;
                break;
            }
        }
    }
    return plan;
}

namespace {

std::mutex usbMutex;
// What each place holds now: the device node (appliance) or "host".
std::array<std::string, kUsbPortCount> usbMounted;
std::array<std::string, kUsbPortCount> usbLabels;

std::string labelOf(const std::string& node) {
    DIR* d = opendir("/dev/disk/by-label");
    if (!d) return "";
    std::string label;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string link = std::string("/dev/disk/by-label/") + e->d_name;
        char target[PATH_MAX];
        if (!realpath(link.c_str(), target) || node != target) continue;
        // udev writes a space as \x20.
        std::string name = e->d_name;
        for (size_t at; (at = name.find("\\x20")) != std::string::npos;)
            name.replace(at, 4, " ");
        label = name;
        break;
    }
    closedir(d);
    return label;
}

}  // namespace

bool mountUsbDevice(const std::string& node, const std::string& mountPoint, std::string* type) {
    mkdir(mountPoint.c_str(), 0777);
    struct Kind {
        const char* type;
        const char* options;
    };
    // No probing library: the kernel refuses a wrong type at once.
    static const Kind kinds[] = {
        {"vfat", "utf8,shortname=mixed,umask=000"},
        {"exfat", "iocharset=utf8,umask=000"},
        {"ntfs3", "iocharset=utf8,umask=000"},
        {"ext4", ""},
        {"ext3", ""},
        {"ext2", ""},
    };
    const unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_NOATIME;
    for (const Kind& k : kinds) {
        if (mount(node.c_str(), mountPoint.c_str(), k.type, flags, k.options) == 0) {
            kzLog("Mounted %s on %s as %s\n", node.c_str(), mountPoint.c_str(), k.type);
            if (type) *type = k.type;
            return true;
        }
    }
    // Kernels before ntfs3 read NTFS through FUSE.
    if (access("/usr/bin/ntfs-3g", X_OK) == 0 || access("/bin/ntfs-3g", X_OK) == 0) {
        kzLog("Executing ntfs-3g %s %s\n", node.c_str(), mountPoint.c_str());
        if (runProgram({"ntfs-3g", node, mountPoint, "-o", "umask=000"}) == 0) {
            if (type) *type = "ntfs-3g";
            return true;
        }
    }
    kzLog("%s did not mount\n", node.c_str());
    return false;
}

namespace {

// What is plugged in now, as places to hold: the device node, or "" for a
// free place. Mounting happens here on the appliance.
std::array<std::string, kUsbPortCount> lookAtUsb() {
    std::array<std::string, kUsbPortCount> now;
    if (isHostMode()) {
        for (int i = 0; i < kUsbPortCount; i++)
            now[i] = isFolder(usbDriveRoot(kUsbPorts[i])) ? "host" : "";
        return now;
    }
    std::string internal = hddpresent ? getHddDevice() : "";
    now = planUsbMounts(readBlockDevices("/sys/block"), usbMounted, internal);
    for (int i = 0; i < kUsbPortCount; i++) {
        std::string mp = usbDriveRoot(kUsbPorts[i]);
        if (!usbMounted[i].empty() && now[i] != usbMounted[i]) {
            // The device is gone: a lazy unmount cannot hang on it.
            umount2(mp.c_str(), MNT_DETACH);
            kzLog("Unmounted %s from %s\n", usbMounted[i].c_str(), mp.c_str());
        }
        if (!now[i].empty() && now[i] != usbMounted[i] && !mountUsbDevice(now[i], mp, nullptr))
            now[i].clear();
    }
    return now;
}

}  // namespace

void pollUSBMounting() {
    std::array<std::string, kUsbPortCount> now = lookAtUsb();
    for (int i = 0; i < kUsbPortCount; i++) {
        const int port = kUsbPorts[i];
        std::string was;
        {
            std::lock_guard<std::mutex> hold(usbMutex);
            was = usbMounted[i];
        }
        if (now[i] == was) continue;
        std::string root = usbDriveRoot(port);
        if (!was.empty()) {
            // The scan of the old drive must have ended before its tables go;
            // until then the drive counts as present, and the next poll asks
            // again.
            if (!usbDriveLeft(port)) continue;
            kzLog("USB drive removed from %s\n", root.c_str());
            std::lock_guard<std::mutex> hold(usbMutex);
            usbMounted[i].clear();
            usbLabels[i].clear();
        }
        if (!now[i].empty()) {
            {
                std::lock_guard<std::mutex> hold(usbMutex);
                usbMounted[i] = now[i];
                usbLabels[i] = isHostMode() ? "" : labelOf(now[i]);
            }
            kzLog("USB drive found at %s\n", root.c_str());
            usbDriveArrived(port);
        }
        addEvent(80);
    }
}

std::vector<UsbDrive> usbDrives() {
    std::vector<UsbDrive> drives;
    for (int i = 0; i < kUsbPortCount; i++) {
        UsbDrive d;
        {
            std::lock_guard<std::mutex> hold(usbMutex);
            if (usbMounted[i].empty()) continue;
            d.name = usbLabels[i];
        }
        d.port = kUsbPorts[i];
        d.root = usbDriveRoot(d.port);
        if (d.name.empty()) d.name = d.root.substr(d.root.rfind('/') + 1);
        struct statvfs fs;
        if (statvfs(d.root.c_str(), &fs) == 0) {
            d.freeBytes = static_cast<long long>(fs.f_bavail) * fs.f_frsize;
            d.sizeBytes = static_cast<long long>(fs.f_blocks) * fs.f_frsize;
        }
        drives.push_back(d);
    }
    return drives;
}

bool usbDrivePresent(int port) {
    std::lock_guard<std::mutex> hold(usbMutex);
    for (int i = 0; i < kUsbPortCount; i++) {
        if (kUsbPorts[i] == port) return !usbMounted[i].empty();
    }
    return false;
}
