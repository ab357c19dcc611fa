#include "ripping/wav.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "core/files.h"
#include "core/log.h"

namespace {

// Identifiers of the list texts, in the order they are written.
constexpr const char* kListIds[WAV_LIST_FIELDS] = {"IART", "INAM", "IPRD", "ITRK", "ICRD",
                                                   "IGNR", "ICMT", "ICOP", "ISFT", "ITOC"};

uint32_t readInt(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint16_t readShort(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

void appendId(std::string& out, const char* id) {
    out.append(id, 4);
}

void appendInt(std::string& out, uint32_t v) {
    uint8_t b[4];
    WavWriteIntIntoBuf(b, v);
    out.append(reinterpret_cast<const char*>(b), 4);
}

// Writes all of bytes in one call; the count on success, 0 otherwise.
int writeAll(const void* bytes, size_t n, FILE* f) {
    return fwrite(bytes, 1, n, f) == n ? static_cast<int>(n) : 0;
}

void setText(WavListInfo* info, WavListField field, const char* text, size_t length) {
    // The copy is made before the old text goes, so a field can be set from
    // its own getter.
    char* copy = nullptr;
    if (length != 0 && text) {
        copy = static_cast<char*>(calloc(length + 1, 1));
        // Text taken from a file counts its NUL in the length; stop there
        // rather than carry the terminator (or what follows it) into the name.
        if (copy) memcpy(copy, text, strnlen(text, length));
    }
    free(info->text[field]);
    info->text[field] = copy;
}

int listFieldOf(const uint8_t* id) {
    for (int i = 0; i < WAV_LIST_FIELDS; i++) {
        if (WavChunkMatch(id, kListIds[i])) return i;
    }
    return -1;
}

const char* orNull(const char* text) {
    return text ? text : "NULL";
}

}  // namespace

WavFmt* WavFmtCreate() {
    return new WavFmt();
}
void WavFmtDestroy(WavFmt* fmt) {
    delete fmt;
}
void WavFmtSetAudioFormat(WavFmt* fmt, uint16_t v) {
    fmt->audioFormat = v;
}
void WavFmtSetNumChannels(WavFmt* fmt, uint16_t v) {
    fmt->numChannels = v;
}
void WavFmtSetSampleRate(WavFmt* fmt, uint32_t v) {
    fmt->sampleRate = v;
}
void WavFmtSetByteRate(WavFmt* fmt, uint32_t v) {
    fmt->byteRate = v;
}
void WavFmtSetBlockAlign(WavFmt* fmt, uint16_t v) {
    fmt->blockAlign = v;
}
void WavFmtSetBps(WavFmt* fmt, uint16_t v) {
    fmt->bps = v;
}
uint16_t WavFmtGetAudioFormat(const WavFmt* fmt) {
    return fmt->audioFormat;
}
uint16_t WavFmtGetNumChannels(const WavFmt* fmt) {
    return fmt->numChannels;
}
uint32_t WavFmtGetSampleRate(const WavFmt* fmt) {
    return fmt->sampleRate;
}
uint32_t WavFmtGetByteRate(const WavFmt* fmt) {
    return fmt->byteRate;
}
uint16_t WavFmtGetBlockAlign(const WavFmt* fmt) {
    return fmt->blockAlign;
}
uint16_t WavFmtGetBps(const WavFmt* fmt) {
    return fmt->bps;
}

WavListInfo* WavListInfoCreate() {
    return new WavListInfo();
}

void WavListInfoDestroy(WavListInfo* info) {
    if (!info) return;
    for (char* text : info->text)
        free(text);
    delete info;
}

void WavListInfoSetArtistName(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_ARTIST, text, length);
}
void WavListInfoSetTrackName(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_TRACK, text, length);
}
void WavListInfoSetAlbumName(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_ALBUM, text, length);
}
void WavListInfoSetTrackNum(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_TRACK_NUM, text, length);
}
void WavListInfoSetYear(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_YEAR, text, length);
}
void WavListInfoSetGenre(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_GENRE, text, length);
}
void WavListInfoSetComments(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_COMMENTS, text, length);
}
void WavListInfoSetCopyright(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_COPYRIGHT, text, length);
}
void WavListInfoSetSoftware(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_SOFTWARE, text, length);
}
void WavListInfoSetTOC(WavListInfo* info, const char* text, size_t length) {
    setText(info, WAV_TOC, text, length);
}

const char* WavListInfoGetArtistName(const WavListInfo* info) {
    return info->text[WAV_ARTIST];
}
const char* WavListInfoGetTrackName(const WavListInfo* info) {
    return info->text[WAV_TRACK];
}
const char* WavListInfoGetAlbumName(const WavListInfo* info) {
    return info->text[WAV_ALBUM];
}
const char* WavListInfoGetTrackNum(const WavListInfo* info) {
    return info->text[WAV_TRACK_NUM];
}
const char* WavListInfoGetYear(const WavListInfo* info) {
    return info->text[WAV_YEAR];
}
const char* WavListInfoGetGenre(const WavListInfo* info) {
    return info->text[WAV_GENRE];
}
const char* WavListInfoGetComments(const WavListInfo* info) {
    return info->text[WAV_COMMENTS];
}
const char* WavListInfoGetCopyright(const WavListInfo* info) {
    return info->text[WAV_COPYRIGHT];
}
const char* WavListInfoGetSoftware(const WavListInfo* info) {
    return info->text[WAV_SOFTWARE];
}
const char* WavListInfoGetTOC(const WavListInfo* info) {
    return info->text[WAV_TOC];
}

void WavWriteIntIntoBuf(uint8_t* buf, uint32_t v) {
    buf[0] = static_cast<uint8_t>(v);
    buf[1] = static_cast<uint8_t>(v >> 8);
    buf[2] = static_cast<uint8_t>(v >> 16);
    buf[3] = static_cast<uint8_t>(v >> 24);
}

void WavWriteShortIntoBuf(uint8_t* buf, uint16_t v) {
    buf[0] = static_cast<uint8_t>(v);
    buf[1] = static_cast<uint8_t>(v >> 8);
}

int WavWriteIntIntoFile(uint32_t v, FILE* f) {
    uint8_t b[4];
    WavWriteIntIntoBuf(b, v);
    return writeAll(b, sizeof b, f);
}

int WavWriteWavHeader(uint32_t size, FILE* f) {
    uint8_t b[12];
    memcpy(b, "RIFF", 4);
    WavWriteIntIntoBuf(b + 4, size);
    memcpy(b + 8, "WAVE", 4);
    return writeAll(b, sizeof b, f);
}

std::string WavListInfoBuild(const WavListInfo* info) {
    // Every size in the chunk is 32 bits; work out the total first so that
    // nothing is built that the sizes could not describe.
    size_t total = 12;
    size_t lengths[WAV_LIST_FIELDS] = {};
    for (int i = 0; i < WAV_TOC; i++) {
        if (!info->text[i]) continue;
        lengths[i] = strlen(info->text[i]);
        if (lengths[i] >= UINT32_MAX - 8) return {};
        total += 8 + lengths[i] + 1 + ((lengths[i] + 1) & 1);
        if (total - 8 > UINT32_MAX) return {};
    }

    std::string out;
    out.reserve(total);
    appendId(out, "LIST");
    appendInt(out, static_cast<uint32_t>(total - 8));
    appendId(out, "INFO");
    // The table of contents is only ever read: the ripper has no use for one.
    for (int i = 0; i < WAV_TOC; i++) {
        if (!info->text[i]) continue;
        uint32_t size = static_cast<uint32_t>(lengths[i] + 1);
        appendId(out, kListIds[i]);
        appendInt(out, size);
        out.append(info->text[i], size);  // with its NUL
        // Sub-chunks start on even offsets; the pad is not part of the size.
        if (size & 1) out.push_back('\0');
    }
    return out;
}

int WavListInfoWrite(const WavListInfo* info, FILE* f) {
    std::string list = WavListInfoBuild(info);
    if (list.empty() || writeAll(list.data(), list.size(), f) == 0) {
        kzLog("WavListInfoWrite: failed to write List Info Chunk\n");
        return 0;
    }
    return static_cast<int>(list.size());
}

int WavFmtWrite(const WavFmt* fmt, FILE* f) {
    uint8_t b[24];
    memcpy(b, "fmt ", 4);
    WavWriteIntIntoBuf(b + 4, 16);
    WavWriteShortIntoBuf(b + 8, fmt->audioFormat);
    WavWriteShortIntoBuf(b + 10, fmt->numChannels);
    WavWriteIntIntoBuf(b + 12, fmt->sampleRate);
    WavWriteIntIntoBuf(b + 16, fmt->byteRate);
    WavWriteShortIntoBuf(b + 20, fmt->blockAlign);
    WavWriteShortIntoBuf(b + 22, fmt->bps);
    return writeAll(b, sizeof b, f);
}

int WavWriteDataChunkHeader(uint32_t size, FILE* f) {
    uint8_t b[8];
    memcpy(b, "data", 4);
    WavWriteIntIntoBuf(b + 4, size);
    return writeAll(b, sizeof b, f);
}

int WavUpdateWavHeaderFileSize(uint32_t size, FILE* f) {
    if (fseek(f, 4, SEEK_SET) != 0) return 0;
    return WavWriteIntIntoFile(size, f);
}

bool WavChunkMatch(const uint8_t* p, const char* id) {
    return memcmp(p, id, 4) == 0;
}
bool IsRiffFile(const uint8_t* p) {
    return WavChunkMatch(p, "RIFF");
}
bool IsWavFile(const uint8_t* p) {
    return WavChunkMatch(p, "WAVE");
}
bool IsWavFmtChunk(const uint8_t* p) {
    return WavChunkMatch(p, "fmt ");
}
bool IsWavDataChunk(const uint8_t* p) {
    return WavChunkMatch(p, "data");
}
bool IsWavListChunk(const uint8_t* p) {
    return WavChunkMatch(p, "LIST");
}
bool IsWavListInfo(const uint8_t* p) {
    return WavChunkMatch(p, "INFO");
}
bool IsWavListInfoArt(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_ARTIST]);
}
bool IsWavListInfoTrackName(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_TRACK]);
}
bool IsWavListInfoAlbumName(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_ALBUM]);
}
bool IsWavListInfoTrackNum(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_TRACK_NUM]);
}
bool IsWavListInfoYear(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_YEAR]);
}
bool IsWavListInfoGenre(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_GENRE]);
}
bool IsWavListInfoComment(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_COMMENTS]);
}
bool IsWavListInfoCopyright(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_COPYRIGHT]);
}
bool IsWavListInfoSoftware(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_SOFTWARE]);
}
bool IsWavListInfoToc(const uint8_t* p) {
    return WavChunkMatch(p, kListIds[WAV_TOC]);
}

void WavFmtParseFromBuf(WavFmt* fmt, const uint8_t* buf) {
    fmt->audioFormat = readShort(buf);
    fmt->numChannels = readShort(buf + 2);
    fmt->sampleRate = readInt(buf + 4);
    fmt->byteRate = readInt(buf + 8);
    fmt->blockAlign = readShort(buf + 12);
    fmt->bps = readShort(buf + 14);
}

void WavListInfoParseFromBuf(WavListInfo* info, const uint8_t* buf, size_t len) {
    // Every step compares against what is left rather than adding to the
    // position, so sizes near 2^32 cannot wrap past the end.
    size_t pos = 0;
    while (len - pos >= 8) {
        const uint8_t* id = buf + pos;
        uint32_t size = readInt(buf + pos + 4);
        pos += 8;
        // A sub-chunk that claims more than there is is damaged; what follows
        // it cannot be found either.
        if (size > len - pos) return;
        int field = listFieldOf(id);
        if (field < 0) {
            kzLog("Unrecognised LIST INFO TAG\n");
        } else {
            setText(info, static_cast<WavListField>(field),
                    reinterpret_cast<const char*>(buf + pos), size);
        }
        pos += size;
        if ((size & 1) && pos < len) pos++;
    }
}

int WavReadChunks(const uint8_t* buf, size_t len, WavFileInfo* out, WavListInfo* info) {
    *out = WavFileInfo();
    if (len < 12 || !IsRiffFile(buf) || !IsWavFile(buf + 8)) return 0;
    // The RIFF size is not trusted: an interrupted rip leaves it 0 and a
    // short one leaves it too large. The buffer is the file.
    size_t pos = 12;
    while (len - pos >= 8) {
        const uint8_t* id = buf + pos;
        uint32_t size = readInt(buf + pos + 4);
        pos += 8;
        size_t avail = len - pos;
        const uint8_t* body = buf + pos;
        if (IsWavFmtChunk(id)) {
            if (size >= 16 && avail >= 16) {
                WavFmtParseFromBuf(&out->fmt, body);
                out->hasFmt = true;
            }
        } else if (IsWavListChunk(id)) {
            size_t have = size < avail ? size : avail;
            if (info && have >= 4 && IsWavListInfo(body)) {
                WavListInfoParseFromBuf(info, body + 4, have - 4);
            }
        } else if (IsWavDataChunk(id)) {
            // The size stays as claimed: a short rip's file says how long the
            // track should have been, and the caller decides what to make of it.
            out->dataOffset = static_cast<long>(pos);
            out->dataSize = size;
        }
        if (size >= avail) break;
        pos += size;
        if ((size & 1) && pos < len) pos++;
    }
    return out->hasFmt && out->dataOffset >= 0 ? 1 : 0;
}

int WavFileSeconds(const char* path) {
    FILE* f = fopen(path, "rbe");
    if (!f) return -1;
    struct stat st;
    long long fileSize = fstat(fileno(f), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
    // The chunks before the audio are small: names, a format, perhaps a
    // little padding.
    std::vector<uint8_t> head(65536);
    size_t got = fread(head.data(), 1, head.size(), f);
    fclose(f);
    WavFileInfo wav;
    if (!WavReadChunks(head.data(), got, &wav, nullptr)) return -1;
    uint32_t byteRate = wav.fmt.byteRate;
    if (byteRate == 0) byteRate = wav.fmt.sampleRate * wav.fmt.blockAlign;
    if (byteRate == 0) return -1;
    long long there = fileSize - wav.dataOffset;
    long long bytes = wav.dataSize;
    if (bytes == 0 || bytes > there) bytes = there;
    return bytes > 0 ? static_cast<int>(bytes / byteRate) : 0;
}

int WavRewriteNames(const char* path, const char* artist, const char* album, const char* track) {
    File in(fopen(path, "rbe"));
    if (!in) return 0;
    std::vector<uint8_t> head(65536);
    size_t got = fread(head.data(), 1, head.size(), in.get());
    WavFileInfo wav;
    std::unique_ptr<WavListInfo, void (*)(WavListInfo*)> info(WavListInfoCreate(),
                                                              WavListInfoDestroy);
    if (!WavReadChunks(head.data(), got, &wav, info.get())) return 0;
    struct stat st;
    if (fstat(fileno(in.get()), &st) != 0) return 0;
    // The audio as it really is: a short rip holds less than it claims.
    long long there = static_cast<long long>(st.st_size) - wav.dataOffset;
    uint32_t data =
        wav.dataSize == 0 || wav.dataSize > there ? static_cast<uint32_t>(there) : wav.dataSize;
    if (artist) WavListInfoSetArtistName(info.get(), artist, strlen(artist));
    if (album) WavListInfoSetAlbumName(info.get(), album, strlen(album));
    if (track) WavListInfoSetTrackName(info.get(), track, strlen(track));
    std::string list = WavListInfoBuild(info.get());
    uint32_t riff = static_cast<uint32_t>(4 + list.size() + 24 + 8 + data);
    // The new file replaces the old only once it is whole.
    bool ok = writeFileAtomically(path, [&](FILE* out) {
        if (!WavWriteWavHeader(riff, out) ||
            fwrite(list.data(), 1, list.size(), out) != list.size() ||
            !WavFmtWrite(&wav.fmt, out) || !WavWriteDataChunkHeader(data, out) ||
            fseek(in.get(), wav.dataOffset, SEEK_SET) != 0) {
            return false;
        }
        std::vector<char> block(1 << 16);
        uint32_t left = data;
        while (left > 0) {
            size_t n = fread(block.data(), 1, std::min<size_t>(left, block.size()), in.get());
            if (n == 0 || fwrite(block.data(), 1, n, out) != n) return false;
            left -= static_cast<uint32_t>(n);
        }
        return true;
    });
    return ok ? 1 : 0;
}

void WavFmtPrint(const WavFmt* fmt) {
    kzLog("FMT Chunk:\n");
    kzLog("Audio Format: %u\n", fmt->audioFormat);
    kzLog("Num Channels: %u\n", fmt->numChannels);
    kzLog("Sample Rate: %u\n", fmt->sampleRate);
    kzLog("Byte Rate: %u\n", fmt->byteRate);
    kzLog("Block Align: %u\n", fmt->blockAlign);
    kzLog("Bits Per Sample: %u\n", fmt->bps);
}

void WavListInfoPrint(const WavListInfo* info) {
    kzLog("LIST INFO Chunk:\n");
    kzLog("Artist: %s\n", orNull(info->text[WAV_ARTIST]));
    kzLog("Track: %s\n", orNull(info->text[WAV_TRACK]));
    kzLog("Album: %s\n", orNull(info->text[WAV_ALBUM]));
    kzLog("Track Num: %s\n", orNull(info->text[WAV_TRACK_NUM]));
    kzLog("Year: %s\n", orNull(info->text[WAV_YEAR]));
    kzLog("Genre: %s\n", orNull(info->text[WAV_GENRE]));
    kzLog("Comments: %s\n", orNull(info->text[WAV_COMMENTS]));
    kzLog("Copyright: %s\n", orNull(info->text[WAV_COPYRIGHT]));
    kzLog("Software: %s\n", orNull(info->text[WAV_SOFTWARE]));
}

void WavPrintBuf(const uint8_t* buf, size_t len) {
    // Sixteen bytes a line, each line one log call so that lines stay whole.
    for (size_t line = 0; line < len; line += 16) {
        char text[80];  // a 64-bit offset and sixteen bytes
        int n = snprintf(text, sizeof text, "%08zx:", line);
        for (size_t i = line; i < len && i < line + 16; i++) {
            n += snprintf(text + n, sizeof text - n, " %02x", buf[i]);
        }
        kzLog("%s\n", text);
    }
}
