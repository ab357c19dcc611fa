#include "ripping/cdrom.h"

#include <cdio/cdio.h>
#include <cdio/logging.h>
#include <cdio/mmc.h>
#include <cdio/mmc_ll_cmds.h>
#include <discid/discid.h>
#include <strings.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "core/log.h"
#include "core/paths.h"

namespace {

CdIo_t* handle(void* p) {
    return static_cast<CdIo_t*>(p);
}

bool endsWith(const std::string& s, const char* suffix) {
    size_t n = strlen(suffix);
    return s.size() >= n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

// libcdio talks on stderr by default; its messages belong in our log.
void cdioLog(cdio_log_level_t level, const char* message) {
    if (level >= CDIO_LOG_WARN) kzLog("libcdio: %s\n", message);
}

std::mutex tocMutex;
CdHeader toc;

// libcdio parses .cue and .toc files with strtok, whose state is one per
// process: the main loop's poll and a rip or the CD player opening the image
// at the same moment garble each other into "no disc" (or trip libcdio's
// asserts). Every open takes its turn.
std::mutex openMutex;

int digitSum(int n) {
    int sum = 0;
    for (; n > 0; n /= 10)
        sum += n % 10;
    return sum;
}

}  // namespace

uint32_t CdHeaderComputeCddbId(const CdHeader& h) {
    if (h.tracks.empty()) return 0;
    int sum = 0;
    for (const CdTrack& t : h.tracks)
        sum += digitSum((t.startLsn + 150) / kSectorsPerSecond);
    int total =
        (h.leadoutLsn + 150) / kSectorsPerSecond - (h.tracks[0].startLsn + 150) / kSectorsPerSecond;
    return (static_cast<uint32_t>(sum % 0xff) << 24) | (static_cast<uint32_t>(total) << 8) |
           static_cast<uint32_t>(h.numTracks());
}

std::string computeDiscId(const CdHeader& h) {
    if (h.tracks.empty()) return "";
    DiscId* disc = discid_new();
    std::vector<int> offsets(100, 0);
    offsets[0] = h.leadoutLsn + 150;
    int last = h.firstTrack + h.numTracks() - 1;
    for (int i = 0; i < h.numTracks() && h.firstTrack + i < 100; i++) {
        offsets[h.firstTrack + i] = h.tracks[i].startLsn + 150;
    }
    std::string id;
    if (last < 100 && discid_put(disc, h.firstTrack, last, offsets.data()))
        id = discid_get_id(disc);
    discid_free(disc);
    return id;
}

CdDrive::CdDrive() : CdDrive(cdDevicePath()) {}

CdDrive::CdDrive(const std::string& source) {
    static std::once_flag logOnce;
    std::call_once(logOnce, [] { cdio_log_set_handler(cdioLog); });
    if (access(source.c_str(), R_OK) != 0) return;
    driver_id_t driver = DRIVER_DEVICE;
    image_ = true;
    if (endsWith(source, ".cue")) {
        driver = DRIVER_BINCUE;
    } else if (endsWith(source, ".toc")) {
        driver = DRIVER_CDRDAO;
    } else if (endsWith(source, ".nrg")) {
        driver = DRIVER_NRG;
    } else {
        image_ = false;
    }
    std::lock_guard<std::mutex> g(openMutex);
    cdio_ = cdio_open(source.c_str(), driver);
}

CdDrive::~CdDrive() {
    if (cdio_) cdio_destroy(handle(cdio_));
}

int CdDrive::readHeader(CdHeader* header) {
    if (!cdio_) return 0;
    CdIo_t* p = handle(cdio_);
    track_t first = cdio_get_first_track_num(p);
    track_t count = cdio_get_num_tracks(p);
    if (first == CDIO_INVALID_TRACK || count == CDIO_INVALID_TRACK || count == 0) return 0;
    header->firstTrack = first;
    header->tracks.clear();
    header->leadoutLsn = cdio_get_track_lsn(p, CDIO_CDROM_LEADOUT_TRACK);
    for (track_t t = first; t < first + count; t++) {
        CdTrack track;
        track.number = t;
        track.startLsn = cdio_get_track_lsn(p, t);
        track.endLsn = cdio_get_track_last_lsn(p, t);
        track.audio = cdio_get_track_format(p, t) == TRACK_FORMAT_AUDIO;
        if (track.startLsn == CDIO_INVALID_LSN || track.endLsn < track.startLsn) return 0;
        header->tracks.push_back(track);
    }
    return header->leadoutLsn == CDIO_INVALID_LSN ? 0 : 1;
}

bool CdDrive::readAudio(void* buf, int32_t lsn, int count) {
    return cdio_ && cdio_read_audio_sectors(handle(cdio_), buf, lsn, count) == DRIVER_OP_SUCCESS;
}

int CdDrive::unitStatus() {
    if (!cdio_) return CD_NO_DISC;
    CdIo_t* p = handle(cdio_);
    if (mmc_test_unit_ready(p, 0) == DRIVER_OP_SUCCESS) return CD_READY;
    // The sense data says why not: no medium, or one that is still spinning up.
    cdio_mmc_request_sense_t* sense = nullptr;
    int n = mmc_last_cmd_sense(p, &sense);
    int status = CD_NOT_READY;
    if (n >= 14 && sense && sense->asc == 0x3A) status = CD_NO_DISC;
    if (sense) cdio_free(sense);
    return status;
}

bool CdDrive::setSpeed(int kbPerSecond) {
    if (!cdio_ || image_) return true;
    return cdio_set_speed(handle(cdio_), kbPerSecond / 176) == DRIVER_OP_SUCCESS;
}

int testUnitReady() {
    std::string source = cdDevicePath();
    if (access(source.c_str(), F_OK) != 0) return CD_NO_DISC;
    CdDrive drive(source);
    if (!drive.ok()) return drive.isImage() ? CD_BAD_DISC : CD_NO_DISC;
    if (!drive.isImage()) {
        int status = drive.unitStatus();
        if (status != CD_READY) return status;
    }
    CdHeader header;
    if (!drive.readHeader(&header)) return drive.isImage() ? CD_BAD_DISC : CD_NOT_READY;
    return CD_READY;
}

void readTOC() {
    CdDrive drive;
    CdHeader header;
    if (!drive.readHeader(&header)) header = CdHeader();
    std::lock_guard<std::mutex> g(tocMutex);
    toc = header;
}

CdHeader currentToc() {
    // A copy: the web thread reads it while the main loop replaces it.
    std::lock_guard<std::mutex> g(tocMutex);
    return toc;
}

void ejectCD() {
    if (isHostMode()) {
        hostSkip("eject of the CD drive");
        return;
    }
    std::lock_guard<std::mutex> g(openMutex);
    cdio_eject_media_drive(cdDevicePath().c_str());
}
