// The mount decisions on a folder shaped like /sys/block, and the names an
// import gives the library.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core/storage.h"
#include "library/import.h"

namespace fs = std::filesystem;

namespace {

struct SysBlock {
    fs::path root = fs::temp_directory_path() / ("kz-sysblock-" + std::to_string(getpid()));
    fs::path devices = root / "devices";
    fs::path block = root / "block";
    SysBlock() {
        fs::remove_all(root);
        fs::create_directories(block);
    }
    ~SysBlock() { fs::remove_all(root); }
    // A disk as the kernel shows it: a link into the device tree, with its
    // partitions as folders inside.
    void disk(const std::string& name, bool usb, std::vector<std::string> parts) {
        fs::path dev = devices / (usb ? "pci0/usb1/1-1/host0" : "pci0/ata1/host0") / name;
        fs::create_directories(dev);
        for (const auto& p : parts)
            fs::create_directories(dev / p);
        fs::create_directories(dev / "queue");  // not a partition
        fs::create_symlink(dev, block / name);
    }
};

}  // namespace

TEST(UsbMounts, DrivesKeepTheirPlacesAndTheInternalDiskIsNeverTaken) {
    SysBlock sys;
    sys.disk("sda", true, {"sda1"});  // the box's own disk hangs off USB too
    sys.disk("sdb", true, {"sdb1", "sdb2", "sdb10"});
    sys.disk("sdc", true, {});  // a stick formatted without partitions
    sys.disk("sdd", false, {"sdd1"});
    std::vector<BlockDevice> devices = readBlockDevices(sys.block.string());
    ASSERT_EQ(devices.size(), 4u);
    EXPECT_EQ(devices[1].partitions, (std::vector<std::string>{"sdb1", "sdb2", "sdb10"}));
    EXPECT_EQ(usbDeviceNode(devices[1]), "/dev/sdb1");
    EXPECT_EQ(usbDeviceNode(devices[2]), "/dev/sdc");
    EXPECT_FALSE(devices[3].usb);

    using Plan = std::array<std::string, kUsbPortCount>;
    Plan plan = planUsbMounts(devices, Plan{}, "/dev/sda");
    EXPECT_EQ(plan, (Plan{"/dev/sdb1", "/dev/sdc"}));
    // Without an internal disk, sda is a drive like the others; a third
    // waits for a free place.
    EXPECT_EQ(planUsbMounts(devices, Plan{}, ""), (Plan{"/dev/sda1", "/dev/sdb1"}));

    // The first drive pulled out: the second stays at usbc, and a new one
    // takes usba.
    std::vector<BlockDevice> later = {devices[2]};
    plan = planUsbMounts(later, plan, "/dev/sda");
    EXPECT_EQ(plan, (Plan{"", "/dev/sdc"}));
    BlockDevice fresh{"sde", true, {"sde1"}};
    later.push_back(fresh);
    EXPECT_EQ(planUsbMounts(later, plan, "/dev/sda"), (Plan{"/dev/sde1", "/dev/sdc"}));
    EXPECT_EQ(planUsbMounts({}, plan, "/dev/sda"), (Plan{"", ""}));
}

TEST(UsbMounts, PortNames) {
    EXPECT_EQ(usbPortByName("usba"), 0);
    EXPECT_EQ(usbPortByName("c"), 2);
    EXPECT_EQ(usbPortByName("usbb"), -1);
    EXPECT_EQ(usbPortByName("usba/../x"), -1);
    EXPECT_EQ(usbPortByName(""), -1);
}

TEST(ImportNames, PathsFromTheWebStayOnTheDrive) {
    std::string out;
    EXPECT_TRUE(cleanRelativePath("Artist/Album", &out));
    EXPECT_EQ(out, "Artist/Album");
    EXPECT_TRUE(cleanRelativePath("/Artist//./Album/", &out));
    EXPECT_EQ(out, "Artist/Album");
    EXPECT_TRUE(cleanRelativePath("", &out));
    EXPECT_EQ(out, "");
    for (const char* bad : {"..", "a/../..", "a/..", ".hidden/x", "a/\x01", "../etc"})
        EXPECT_FALSE(cleanRelativePath(bad, &out)) << bad;
}

TEST(ImportNames, OutsideNamesBecomeNamesTheLibraryHolds) {
    EXPECT_EQ(libraryName("AC/DC", 100, false), "AC_DC");
    EXPECT_EQ(libraryName("..", 100, false), "__");
    EXPECT_EQ(libraryName(".hidden", 100, false), "_hidden");
    EXPECT_EQ(libraryName("Star*", 100, false), "Star_");
    EXPECT_EQ(libraryName("line\nfeed", 100, false), "line_feed");
    EXPECT_EQ(libraryName("Trailing. ", 100, false), "Trailing");
    EXPECT_EQ(libraryName("...", 100, false), "_");
    // Cut to fit kzdb, never inside a UTF-8 letter, the extension kept.
    std::string longName;
    for (int i = 0; i < 150; i++)
        longName += "\xc3\xa9";  // é
    std::string cut = libraryName(longName + ".flac", 200, true);
    EXPECT_LE(cut.size(), 200u);
    EXPECT_EQ(cut.substr(cut.size() - 5), ".flac");
    std::string body = cut.substr(0, cut.size() - 5);
    EXPECT_EQ(body.size() % 2, 0u);
    EXPECT_EQ(libraryName(longName, 101, false).size(), 100u);
}

namespace {

int run(const std::string& command) {
    return system(command.c_str());
}

}  // namespace

// A real drive, where the machine lends a loop device: each file system is
// found without being told, and what the box writes is on the image.
TEST(UsbMounts, LoopDevicesOfEachFileSystemMount) {
    if (geteuid() != 0 || access("/dev/loop-control", W_OK) != 0)
        GTEST_SKIP() << "no loop devices here";
    fs::path dir = fs::temp_directory_path() / ("kz-loop-" + std::to_string(getpid()));
    fs::create_directories(dir / "mnt");
    // A sandbox may lend loop devices and still refuse to mount anything.
    if (run("unshare -m sh -c 'mount -t tmpfs kz " + (dir / "mnt").string() + "' 2>/dev/null") !=
        0) {
        fs::remove_all(dir);
        GTEST_SKIP() << "mounting is not allowed here";
    }
    struct Kind {
        const char* type;
        const char* mkfs;
    };
    int tried = 0;
    for (Kind k : {Kind{"vfat", "mkfs.vfat -n KZTEST"}, Kind{"ext4", "mkfs.ext4 -q -L KZTEST"},
                   Kind{"exfat", "mkfs.exfat -n KZTEST"}}) {
        std::string image = (dir / (std::string(k.type) + ".img")).string();
        std::string tool = std::string(k.mkfs).substr(0, std::string(k.mkfs).find(' '));
        // The kernel here may read only some of them.
        if (run(std::string("grep -qw ") + k.type + " /proc/filesystems") != 0) continue;
        if (run("command -v " + tool + " >/dev/null 2>&1 || test -x /sbin/" + tool) != 0) continue;
        ASSERT_EQ(run("truncate -s 40M " + image), 0);
        ASSERT_EQ(run("PATH=$PATH:/sbin:/usr/sbin " + std::string(k.mkfs) + " " + image +
                      " >/dev/null 2>&1"),
                  0);
        std::string node;
        FILE* p = popen(("losetup -f --show " + image + " 2>/dev/null").c_str(), "r");
        char line[64] = "";
        if (p && fgets(line, sizeof line, p)) node = line;
        if (p) pclose(p);
        if (!node.empty() && node.back() == '\n') node.pop_back();
        if (node.empty()) GTEST_SKIP() << "losetup gave no device";
        std::string type;
        bool mounted = mountUsbDevice(node, (dir / "mnt").string(), &type);
        if (mounted) {
            std::ofstream((dir / "mnt" / "written.txt").string()) << "on the drive";
            EXPECT_TRUE(fs::exists(dir / "mnt" / "written.txt"));
            EXPECT_EQ(run("umount " + (dir / "mnt").string()), 0);
        }
        run("losetup -d " + node);
        EXPECT_TRUE(mounted) << k.type;
        EXPECT_EQ(type, k.type);
        tried++;
    }
    fs::remove_all(dir);
    EXPECT_GE(tried, 1);
}
