// Removing files and folders without a shell: a name from a disc, the
// library or the web is only ever a name.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

// A FILE that closes itself.
struct FileCloser {
    void operator()(FILE* f) const {
        if (f) fclose(f);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Removes a file or a symbolic link (never what a link points to).
// 0 on success, -1 with errno set.
int removeFile(const std::string& path);
// Removes a folder and everything below it, or a single file. Symbolic links
// are removed, not followed. 0 when all of it went.
int removeTree(const std::string& path);
bool isFolder(const std::string& path);
// mkdir -p: every missing folder of path (mode 0777 less the umask).
// False with errno set when one could not be made.
bool makeFolders(const std::string& path);
bool fileExists(const std::string& path);

// Writes path through a temporary file in the same folder, flushed, synced
// and renamed over it: a power cut leaves the old file or the new one, never
// half of one. write returns false to give up; the old file then stays.
bool writeFileAtomically(const std::string& path, const std::function<bool(FILE*)>& write);

// The one-line files of settings kept beside kzdb ("repeat album",
// "snapcast also"): the word after key (a bare word is taken too), "" when
// the file is not there. Written through writeFileAtomically; a failure is
// logged and returns false.
std::string readSettingWord(const std::string& path, const char* key);
bool writeSettingWord(const std::string& path, const char* key, const char* word);

// Which side of a copy failed. copy_file_range does not say: a full disk is
// its writing side, any other error Either, for the caller to judge.
enum class CopySide { Read, Write, Either };

// Copies the data of open files in 1 MiB chunks: copy_file_range, or read
// and write once the kernel cannot (between two file systems), a choice
// kept for the copier's later files. beforeChunk may end a copy with an
// error of its own (its side is Either); copied hears each chunk's size.
class FileCopier {
  public:
    // The rest of in into out: 0 when all of it went, else the error.
    int copy(int in, int out, const std::function<int()>& beforeChunk,
             const std::function<void(long long)>& copied, CopySide* side);

  private:
    bool kernel_ = true;
    std::unique_ptr<char[]> buffer_;
};
