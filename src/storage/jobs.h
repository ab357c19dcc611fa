// The storage jobs: importing from a USB drive, backing the library up to
// one, restoring it from one, and tidying the library. They share one worker
// thread, so two of them never pull the same disk in different directions;
// each reports its progress for the status's "background" and the pages.
#pragma once

#include <string>
#include <vector>

// Each returns false with a reason for the person when a job is already
// running or the drive is not there.
bool startImportJob(const std::string& driveRoot, const std::vector<std::string>& sources,
                    std::string* why);
bool startBackupJob(const std::string& driveRoot, std::string* why);
bool startRestoreJob(const std::string& driveRoot, std::string* why);
bool startTidyJob(std::string* why);

bool isStorageJobRunning();
// Ends the job under way at its next block (allStop, quit) and waits for it.
void stopStorageJobs();
// A drive went away: a job reading or writing it stops.
void storageDriveGone(const std::string& root);

// "Importing 12 of 340 tracks" while a job runs; its last word for a minute
// after it ends; else "".
std::string storageStatusText();
// {"job":"import","running":true,"done":12,"total":340,"bytesDone":...,
//  "bytesTotal":...,"message":"..."} for the pages.
std::string storageJobJson();
