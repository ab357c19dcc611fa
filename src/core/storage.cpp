#include "core/storage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include "core/appliance.h"
#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shutdown.h"
#include "library/database.h"
#include "library/library.h"

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
