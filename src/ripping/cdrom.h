// The CD drive through libcdio: a real drive ("/dev/sr0" under the host root)
// or a disc image named by KZ_CDROM (.cue/.bin, .toc, .nrg). The rest of kz
// sees a disc header of tracks and sector reads, never a libcdio handle.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

enum CdStatus { CD_NO_DISC = 1, CD_NOT_READY = 2, CD_READY = 3, CD_BAD_DISC = 4 };

constexpr int kSectorBytes = 2352;
constexpr int kSectorsPerSecond = 75;

struct CdTrack {
    int number = 0;
    int32_t startLsn = 0;
    int32_t endLsn = 0;  // last sector, inclusive
    bool audio = true;
    int32_t frameCount() const { return endLsn - startLsn + 1; }
};

struct CdHeader {
    int firstTrack = 1;
    int32_t leadoutLsn = 0;
    std::vector<CdTrack> tracks;
    int numTracks() const { return static_cast<int>(tracks.size()); }
};

// The freedb/CDDB identifier of a table of contents.
uint32_t CdHeaderComputeCddbId(const CdHeader& header);
// The MusicBrainz disc identifier (libdiscid) of a table of contents.
std::string computeDiscId(const CdHeader& header);

class CdDrive {
  public:
    // Opens the configured drive or image; check ok().
    CdDrive();
    explicit CdDrive(const std::string& source);
    ~CdDrive();
    CdDrive(const CdDrive&) = delete;
    CdDrive& operator=(const CdDrive&) = delete;

    bool ok() const { return cdio_ != nullptr; }
    bool isImage() const { return image_; }
    // 1 with the header filled, 0 when the table of contents cannot be read.
    int readHeader(CdHeader* header);
    // Reads count audio sectors from lsn into buf; true on success.
    bool readAudio(void* buf, int32_t lsn, int count);
    bool setSpeed(int kbPerSecond);
    // A real drive's answer to TEST UNIT READY: ready, no disc or not ready.
    int unitStatus();

  private:
    void* cdio_ = nullptr;  // CdIo_t
    bool image_ = false;
};

// The drive's status, as the main loop polls it.
int testUnitReady();
// Reads the table of contents of the disc in the drive into the current one.
void readTOC();
CdHeader currentToc();
void ejectCD();
