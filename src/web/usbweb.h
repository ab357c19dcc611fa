// The replies of the USB drive commands. A path on the drive travels as
// "&path=" with every byte percent-encoded by the pages, so that no folder
// name can spell another command's word in the URI; plain text works too.
#pragma once

#include <string>

// listDir&path=Artist/Album[&drive=usbc]
std::string listDirReply(const char* uri);
// getTagsForPath&path=Artist/Album/01.flac[&drive=usbc]
std::string tagsForPathReply(const char* uri);
// USBImport[&path=...][&path=...][&drive=usbc]: no path, the whole drive.
std::string usbImportReply(const char* uri);
// usbDrives: the drives, their space, the date of their last backup.
std::string usbDrivesReply();
// startBackup&drive=usba, startRestore&drive=usba, tidyLibrary, storageJob.
std::string startBackupReply(const char* uri);
std::string startRestoreReply(const char* uri);
std::string tidyLibraryReply();
std::string storageJobReply();
