#include "core/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "core/log.h"

namespace {

// Empties the folder open as dirFd (which this closes), depth first.
int emptyFolder(int dirFd) {
    DIR* d = fdopendir(dirFd);
    if (!d) {
        close(dirFd);
        return -1;
    }
    int result = 0;
    while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        struct stat st;
        if (fstatat(dirFd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            result = -1;
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            int sub = openat(dirFd, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0 || emptyFolder(sub) != 0) result = -1;
            if (unlinkat(dirFd, e->d_name, AT_REMOVEDIR) != 0) result = -1;
        } else if (unlinkat(dirFd, e->d_name, 0) != 0) {
            result = -1;
        }
    }
    closedir(d);
    return result;
}

// One writer at a time per file: saves from the web thread, the background
// saver and quit would otherwise share one temporary file, and one could
// empty it while another renames it. Serializing also keeps the newest
// content last, since each writer takes its snapshot inside the lock.
std::mutex& writerLock(const std::string& path) {
    static std::mutex mapLock;
    static auto* locks = new std::map<std::string, std::mutex>();
    std::lock_guard<std::mutex> g(mapLock);
    return (*locks)[path];
}

}  // namespace

int removeFile(const std::string& path) {
    return unlink(path.c_str());
}

int removeTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return unlink(path.c_str());
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    int result = emptyFolder(fd);
    if (rmdir(path.c_str()) != 0) result = -1;
    return result;
}

bool isFolder(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool makeFolders(const std::string& path) {
    if (path.empty() || isFolder(path)) return true;
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !makeFolders(path.substr(0, slash)))
        return false;
    if (mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && isFolder(path))) return true;
    return false;
}

bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool writeFileAtomically(const std::string& path, const std::function<bool(FILE*)>& write) {
    std::lock_guard<std::mutex> serial(writerLock(path));
    std::string temp = path + ".new";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    File f(fd >= 0 ? fdopen(fd, "w") : nullptr);
    if (!f) {
        if (fd >= 0) close(fd);
        return false;
    }
    bool ok = write(f.get());
    ok = ok && fflush(f.get()) == 0 && !ferror(f.get()) && fsync(fileno(f.get())) == 0;
    ok = fclose(f.release()) == 0 && ok;
    if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
        unlink(temp.c_str());
        return false;
    }
    // The rename itself must reach the disk too.
    size_t slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "."
                         : slash == 0               ? "/"
                                                    : path.substr(0, slash);
    int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return true;
}

std::string readSettingWord(const std::string& path, const char* key) {
    File f(fopen(path.c_str(), "r"));
    char line[128] = "";
    if (!f || !fgets(line, sizeof line, f.get())) return "";
    line[strcspn(line, "\r\n")] = '\0';
    size_t n = strlen(key);
    return strncmp(line, key, n) == 0 && line[n] == ' ' ? line + n + 1 : line;
}

bool writeSettingWord(const std::string& path, const char* key, const char* word) {
    bool ok =
        writeFileAtomically(path, [&](FILE* f) { return fprintf(f, "%s %s\n", key, word) > 0; });
    if (!ok) kzLog("Cannot write %s\n", path.c_str());
    return ok;
}

int FileCopier::copy(int in, int out, const std::function<int()>& beforeChunk,
                     const std::function<void(long long)>& copied, CopySide* side) {
    constexpr size_t kChunk = 1 << 20;
    for (;;) {
        if (int own = beforeChunk ? beforeChunk() : 0) {
            *side = CopySide::Either;
            return own;
        }
        ssize_t n;
        if (kernel_) {
            n = copy_file_range(in, nullptr, out, nullptr, kChunk, 0);
            if (n < 0) {
                int err = errno;
                if (err == EINTR) continue;
                if (err == EXDEV || err == EINVAL || err == ENOSYS || err == EOPNOTSUPP ||
                    err == EPERM) {
                    // Only before the first byte: the files' positions are
                    // then known to be where read and write start.
                    if (lseek(in, 0, SEEK_CUR) == 0 && lseek(out, 0, SEEK_CUR) == 0) {
                        kernel_ = false;
                        continue;
                    }
                }
                *side = err == ENOSPC || err == EDQUOT || err == EFBIG ? CopySide::Write
                                                                       : CopySide::Either;
                return err;
            }
        } else {
            if (!buffer_) buffer_ = std::make_unique<char[]>(kChunk);
            n = read(in, buffer_.get(), kChunk);
            if (n < 0) {
                if (errno == EINTR) continue;
                *side = CopySide::Read;
                return errno;
            }
            for (ssize_t put = 0; put < n;) {
                ssize_t w = write(out, buffer_.get() + put, n - put);
                if (w < 0) {
                    if (errno == EINTR) continue;
                    *side = CopySide::Write;
                    return errno;
                }
                put += w;
            }
        }
        if (n == 0) return 0;
        if (copied) copied(n);
    }
}
