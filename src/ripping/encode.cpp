#include "ripping/encode.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>
#include <FLAC/stream_encoder.h>
#include <fcntl.h>
#include <lame/lame.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <strings.h>
#include <memory>
#include <vector>

#include "core/paths.h"
#include "core/process.h"
#include "ripping/wav.h"

namespace {

constexpr long kBlockFrames = 4096;

uint32_t le32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

bool diskFullErrno(int e) {
    return e == ENOSPC || e == EDQUOT;
}

bool syncFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

CodecResult fail(const std::string& why, bool diskFull = false) {
    CodecResult r;
    r.why = why;
    r.diskFull = diskFull;
    return r;
}

CodecResult cancelled() {
    CodecResult r = fail("cancelled");
    r.cancelled = true;
    return r;
}

// Sums squares of samples scaled to full scale 1.0.
struct Level {
    double sum = 0;
    long count = 0;
    void add(const int32_t* s, long n, int bits) {
        const double scale = 1.0 / static_cast<double>(1LL << (bits - 1));
        for (long i = 0; i < n; i++) {
            double v = s[i] * scale;
            sum += v * v;
        }
        count += n;
    }
    double rms() const { return count ? std::sqrt(sum / static_cast<double>(count)) : 0; }
};

uint32_t be16(const std::string& s, size_t i) {
    return (static_cast<uint8_t>(s[i]) << 8) | static_cast<uint8_t>(s[i + 1]);
}
uint32_t be32(const std::string& s, size_t i) {
    return (be16(s, i) << 16) | be16(s, i + 2);
}

// Width, height and bits per pixel of a JPEG (its frame header) or a PNG
// (its IHDR). libFLAC's own picture lookup passes over a picture whose size
// is 0, so players built on it would not find the cover.
void imageSize(const std::string& s, uint32_t* w, uint32_t* h, uint32_t* depth) {
    *w = *h = *depth = 0;
    if (s.size() > 26 && s.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && s.compare(12, 4, "IHDR") == 0) {
        static const int channels[] = {1, 0, 3, 1, 2, 0, 4};
        uint8_t type = static_cast<uint8_t>(s[25]);
        *w = be32(s, 16);
        *h = be32(s, 20);
        *depth = static_cast<uint32_t>(static_cast<uint8_t>(s[24]) * (type < 7 ? channels[type] : 0));
        return;
    }
    if (s.size() < 4 || s.compare(0, 2, "\xff\xd8") != 0) return;
    for (size_t i = 2; i + 9 < s.size();) {
        if (static_cast<uint8_t>(s[i]) != 0xff) return;
        uint8_t marker = static_cast<uint8_t>(s[i + 1]);
        if (marker == 0xff) {
            i++;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xd0 && marker <= 0xd9)) {
            i += 2;
            continue;
        }
        if (marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc) {
            *h = be16(s, i + 5);
            *w = be16(s, i + 7);
            *depth = 8u * static_cast<uint8_t>(s[i + 9]);
            return;
        }
        i += 2 + be16(s, i + 2);
    }
}

}  // namespace

bool WavReader::open(const std::string& path, std::string* why) {
    file_.reset(fopen(path.c_str(), "rb"));
    if (!file_) {
        *why = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    FILE* f = file_.get();
    struct stat st {};
    fstat(fileno(f), &st);
    uint8_t head[12];
    if (fread(head, 1, 12, f) != 12 || !IsRiffFile(head) || !IsWavFile(head + 8)) {
        *why = "not a RIFF/WAVE file";
        return false;
    }
    int format = 0;
    long dataStart = -1, dataBytes = 0;
    WavListInfo info;
    for (;;) {
        uint8_t chunk[8];
        if (fread(chunk, 1, 8, f) != 8) break;
        uint32_t size = le32(chunk + 4);
        long at = ftell(f);
        if (WavChunkMatch(chunk, "fmt ")) {
            uint8_t fmt[40] = {};
            size_t want = size < sizeof fmt ? size : sizeof fmt;
            if (size < 16 || fread(fmt, 1, want, f) != want) break;
            format = le16(fmt);
            channels = le16(fmt + 2);
            rate = static_cast<int>(le32(fmt + 4));
            bits = le16(fmt + 14);
            // WAVE_FORMAT_EXTENSIBLE names the real format in its sub-format.
            if (format == 0xFFFE && want >= 26) format = le16(fmt + 24);
        } else if (WavChunkMatch(chunk, "LIST") && size >= 4 && size < (1u << 20)) {
            std::vector<uint8_t> body(size);
            if (fread(body.data(), 1, size, f) == size && IsWavListInfo(body.data())) {
                WavListInfoParseFromBuf(&info, body.data() + 4, size - 4);
            }
        } else if (WavChunkMatch(chunk, "data")) {
            dataStart = at;
            long inFile = static_cast<long>(st.st_size) - at;
            dataBytes = (size == 0 || size == 0xFFFFFFFFu || static_cast<long>(size) > inFile)
                            ? inFile
                            : static_cast<long>(size);
            break;
        }
        if (fseek(f, at + static_cast<long>(size) + (size & 1), SEEK_SET) != 0) break;
    }
    auto text = [&](WavListField field) {
        return info.text[field] ? std::string(info.text[field]) : std::string();
    };
    artist = text(WAV_ARTIST);
    album = text(WAV_ALBUM);
    title = text(WAV_TRACK);
    trackNumber = text(WAV_TRACK_NUM);
    year = text(WAV_YEAR);
    genre = text(WAV_GENRE);
    for (char*& t : info.text) {
        free(t);
        t = nullptr;
    }
    if (format == 0 || dataStart < 0) {
        *why = "no fmt or data chunk";
        return false;
    }
    if (format != 1 || channels < 1 || channels > 2 || (bits != 8 && bits != 16 && bits != 24 && bits != 32) ||
        rate < 8000 || rate > 192000) {
        *why = "format " + std::to_string(format) + ", " + std::to_string(channels) + " channels, " +
               std::to_string(bits) + " bits, " + std::to_string(rate) + " Hz is not integer PCM kz compresses";
        return false;
    }
    bytesPerSample_ = bits / 8;
    frames = dataBytes / (channels * bytesPerSample_);
    left_ = frames;
    if (fseek(f, dataStart, SEEK_SET) != 0) {
        *why = "cannot seek to the audio";
        return false;
    }
    return true;
}

long WavReader::read(int32_t* samples, long want) {
    if (want > left_) want = left_;
    if (want <= 0) return 0;
    const size_t width = static_cast<size_t>(channels * bytesPerSample_);
    raw_.resize(static_cast<size_t>(want) * width);
    size_t got = fread(raw_.data(), width, static_cast<size_t>(want), file_.get());
    if (got == 0) return ferror(file_.get()) ? -1 : 0;
    const uint8_t* p = raw_.data();
    const long n = static_cast<long>(got) * channels;
    // One loop per width: this runs for every sample of the library.
    switch (bytesPerSample_) {
    case 1:
        for (long i = 0; i < n; i++) samples[i] = static_cast<int32_t>(p[i]) - 128;
        break;
    case 2:
        for (long i = 0; i < n; i++, p += 2) samples[i] = static_cast<int16_t>(le16(p));
        break;
    case 3:
        for (long i = 0; i < n; i++, p += 3) {
            samples[i] = static_cast<int32_t>((p[0] << 8) | (p[1] << 16) | (static_cast<uint32_t>(p[2]) << 24)) >> 8;
        }
        break;
    default:
        for (long i = 0; i < n; i++, p += 4) samples[i] = static_cast<int32_t>(le32(p));
        break;
    }
    left_ -= static_cast<long>(got);
    return static_cast<long>(got);
}

// ----------------------------------------------------------------- FLAC

CodecResult encodeFlac(const std::string& wav, const std::string& out, const TrackTags& tags,
                       const CancelCheck& cancel) {
    WavReader in;
    std::string why;
    if (!in.open(wav, &why)) return fail(why);
    // 32-bit FLAC is new, and the decoder kz plays with cannot read it.
    if (in.bits > 24) return fail("32-bit PCM is kept as WAV");

    FLAC__StreamEncoder* enc = FLAC__stream_encoder_new();
    if (!enc) return fail("no memory for the FLAC encoder");
    std::unique_ptr<FLAC__StreamEncoder, void (*)(FLAC__StreamEncoder*)> encoder(enc, FLAC__stream_encoder_delete);
    FLAC__stream_encoder_set_channels(enc, static_cast<uint32_t>(in.channels));
    FLAC__stream_encoder_set_bits_per_sample(enc, static_cast<uint32_t>(in.bits));
    FLAC__stream_encoder_set_sample_rate(enc, static_cast<uint32_t>(in.rate));
    FLAC__stream_encoder_set_compression_level(enc, 5);
    // An odd sample rate (96005 Hz) is valid FLAC, just not the streamable
    // subset the encoder holds to by default.
    if (!FLAC__format_sample_rate_is_subset(static_cast<uint32_t>(in.rate))) {
        FLAC__stream_encoder_set_streamable_subset(enc, false);
    }
    FLAC__stream_encoder_set_total_samples_estimate(enc, static_cast<FLAC__uint64>(in.frames));

    // Metadata blocks, freed once the encoder has finished with them.
    std::vector<FLAC__StreamMetadata*> blocks;
    struct Free {
        std::vector<FLAC__StreamMetadata*>& b;
        ~Free() {
            for (auto* m : b) FLAC__metadata_object_delete(m);
        }
    } freeBlocks{blocks};
    FLAC__StreamMetadata* comments = FLAC__metadata_object_new(FLAC__METADATA_TYPE_VORBIS_COMMENT);
    if (!comments) return fail("no memory for FLAC tags");
    blocks.push_back(comments);
    auto comment = [&](const char* name, const std::string& value) {
        if (value.empty()) return;
        FLAC__StreamMetadata_VorbisComment_Entry entry;
        if (FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, name, value.c_str())) {
            FLAC__metadata_object_vorbiscomment_append_comment(comments, entry, false);
        }
    };
    comment("ARTIST", tags.artist);
    comment("ALBUM", tags.album);
    comment("TITLE", tags.title);
    comment("TRACKNUMBER", tags.trackNumber);
    comment("DATE", tags.year);
    comment("GENRE", tags.genre);
    if (!tags.cover.empty()) {
        FLAC__StreamMetadata* picture = FLAC__metadata_object_new(FLAC__METADATA_TYPE_PICTURE);
        if (picture) {
            blocks.push_back(picture);
            picture->data.picture.type = FLAC__STREAM_METADATA_PICTURE_TYPE_FRONT_COVER;
            imageSize(tags.cover, &picture->data.picture.width, &picture->data.picture.height,
                      &picture->data.picture.depth);
            FLAC__metadata_object_picture_set_mime_type(picture, const_cast<char*>(tags.coverMime.c_str()), true);
            FLAC__metadata_object_picture_set_description(picture, reinterpret_cast<FLAC__byte*>(const_cast<char*>("")), true);
            FLAC__metadata_object_picture_set_data(
                picture, reinterpret_cast<FLAC__byte*>(const_cast<char*>(tags.cover.data())),
                static_cast<FLAC__uint32>(tags.cover.size()), true);
        }
    }
    FLAC__StreamMetadata* padding = FLAC__metadata_object_new(FLAC__METADATA_TYPE_PADDING);
    if (padding) {
        padding->length = 4096;  // room to edit tags later without rewriting the file
        blocks.push_back(padding);
    }
    FLAC__stream_encoder_set_metadata(enc, blocks.data(), static_cast<uint32_t>(blocks.size()));

    errno = 0;
    FLAC__StreamEncoderInitStatus init = FLAC__stream_encoder_init_file(enc, out.c_str(), nullptr, nullptr);
    if (init != FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        int e = errno;
        return fail(std::string("cannot start the FLAC file: ") + FLAC__StreamEncoderInitStatusString[init] +
                        (e ? std::string(" (") + strerror(e) + ")" : std::string()),
                    diskFullErrno(e));
    }
    std::vector<int32_t> buf(static_cast<size_t>(kBlockFrames * in.channels));
    for (;;) {
        if (cancel && cancel()) {
            FLAC__stream_encoder_finish(enc);
            return cancelled();
        }
        long n = in.read(buf.data(), kBlockFrames);
        if (n < 0) {
            FLAC__stream_encoder_finish(enc);
            return fail("read error in the WAV");
        }
        if (n == 0) break;
        errno = 0;
        if (!FLAC__stream_encoder_process_interleaved(enc, buf.data(), static_cast<uint32_t>(n))) {
            int e = errno;
            FLAC__stream_encoder_finish(enc);
            return fail(std::string("FLAC encoder: ") +
                            FLAC__StreamEncoderStateString[FLAC__stream_encoder_get_state(enc)] +
                            (e ? std::string(" (") + strerror(e) + ")" : std::string()),
                        diskFullErrno(e));
        }
    }
    errno = 0;
    if (!FLAC__stream_encoder_finish(enc)) {
        int e = errno;
        return fail("FLAC encoder could not finish: " + std::string(strerror(e)), diskFullErrno(e));
    }
    errno = 0;
    if (!syncFile(out)) return fail("cannot sync the FLAC file", diskFullErrno(errno));
    CodecResult r;
    r.ok = true;
    return r;
}

namespace {

struct FlacCheck {
    WavReader wav;
    std::vector<int32_t> expect;
    long decoded = 0;
    std::string why;
};

FLAC__StreamDecoderWriteStatus checkFrame(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                          const FLAC__int32* const buffer[], void* data) {
    auto* c = static_cast<FlacCheck*>(data);
    const long n = static_cast<long>(frame->header.blocksize);
    const int ch = c->wav.channels;
    if (static_cast<int>(frame->header.channels) != ch ||
        static_cast<int>(frame->header.bits_per_sample) != c->wav.bits) {
        c->why = "channels or sample width differ";
        return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    c->expect.resize(static_cast<size_t>(n * ch));
    if (c->wav.read(c->expect.data(), n) != n) {
        c->why = "the FLAC holds more audio than the WAV";
        return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    for (long i = 0; i < n; i++) {
        for (int k = 0; k < ch; k++) {
            if (buffer[k][i] != c->expect[static_cast<size_t>(i * ch + k)]) {
                c->why = "sample " + std::to_string(c->decoded + i) + " differs";
                return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
            }
        }
    }
    c->decoded += n;
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void ignoreMetadata(const FLAC__StreamDecoder*, const FLAC__StreamMetadata*, void*) {}

void noteError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus status, void* data) {
    auto* c = static_cast<FlacCheck*>(data);
    if (c->why.empty()) c->why = FLAC__StreamDecoderErrorStatusString[status];
}

}  // namespace

CodecResult verifyFlac(const std::string& wav, const std::string& flac) {
    FlacCheck check;
    std::string why;
    if (!check.wav.open(wav, &why)) return fail(why);
    FLAC__StreamDecoder* dec = FLAC__stream_decoder_new();
    if (!dec) return fail("no memory for the FLAC decoder");
    std::unique_ptr<FLAC__StreamDecoder, void (*)(FLAC__StreamDecoder*)> decoder(dec, FLAC__stream_decoder_delete);
    FLAC__stream_decoder_set_md5_checking(dec, true);
    if (FLAC__stream_decoder_init_file(dec, flac.c_str(), checkFrame, ignoreMetadata, noteError, &check) !=
        FLAC__STREAM_DECODER_INIT_STATUS_OK) {
        return fail("cannot open the FLAC file");
    }
    bool decoded = FLAC__stream_decoder_process_until_end_of_stream(dec);
    bool md5 = FLAC__stream_decoder_finish(dec);
    if (!check.why.empty()) return fail("FLAC check: " + check.why);
    if (!decoded) return fail("FLAC check: the file does not decode");
    if (!md5) return fail("FLAC check: the MD5 of the audio differs");
    if (check.decoded != check.wav.frames) {
        return fail("FLAC check: " + std::to_string(check.decoded) + " frames, the WAV has " +
                    std::to_string(check.wav.frames));
    }
    CodecResult r;
    r.ok = true;
    return r;
}

// ------------------------------------------------------------------ MP3

namespace {

void put32be(std::string& s, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>((v >> shift) & 0xff);
}

// UTF-8 to UTF-16LE; a byte that starts no valid sequence becomes U+FFFD.
std::string utf16le(const std::string& text) {
    std::string out;
    auto unit = [&](uint32_t u) {
        out += static_cast<char>(u & 0xff);
        out += static_cast<char>((u >> 8) & 0xff);
    };
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        uint32_t c = p[i];
        int len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        bool ok = len > 0 && i + static_cast<size_t>(len) <= n;
        if (ok && len > 1) {
            c &= 0x7fu >> len;
            for (int k = 1; k < len; k++) {
                if ((p[i + static_cast<size_t>(k)] & 0xc0) != 0x80) ok = false;
                c = (c << 6) | (p[i + static_cast<size_t>(k)] & 0x3f);
            }
            if (c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) ok = false;
        }
        if (!ok) {
            unit(0xfffd);
            i++;
            continue;
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            unit(0xd800 + (c >> 10));
            unit(0xdc00 + (c & 0x3ff));
        } else {
            unit(c);
        }
        i += static_cast<size_t>(len);
    }
    return out;
}

std::string encodedText(const std::string& text) {
    bool ascii = true;
    for (unsigned char c : text) ascii = ascii && c < 0x80;
    if (ascii) return std::string(1, '\0') + text;
    return std::string("\x01\xff\xfe", 3) + utf16le(text);
}

void frame(std::string& tag, const char* id, const std::string& body) {
    tag.append(id, 4);
    put32be(tag, static_cast<uint32_t>(body.size()));
    tag.append(2, '\0');
    tag += body;
}

}  // namespace

std::string buildId3v2(const TrackTags& tags) {
    std::string frames;
    const std::pair<const char*, const std::string*> texts[] = {
        {"TPE1", &tags.artist}, {"TALB", &tags.album}, {"TIT2", &tags.title},
        {"TRCK", &tags.trackNumber}, {"TYER", &tags.year}, {"TCON", &tags.genre}};
    for (const auto& [id, text] : texts) {
        if (!text->empty()) frame(frames, id, encodedText(*text));
    }
    if (!tags.cover.empty()) {
        std::string body(1, '\0');
        body += tags.coverMime;
        body += '\0';
        body += '\x03';  // front cover
        body += '\0';    // no description
        body += tags.cover;
        frame(frames, "APIC", body);
    }
    std::string tag = "ID3";
    tag += '\x03';
    tag += '\0';
    tag += '\0';
    const uint32_t size = static_cast<uint32_t>(frames.size());
    for (int shift = 21; shift >= 0; shift -= 7) tag += static_cast<char>((size >> shift) & 0x7f);
    return tag + frames;
}

CodecResult encodeMp3(const std::string& wav, const std::string& out, int kbps, const TrackTags& tags,
                      const CancelCheck& cancel) {
    WavReader in;
    std::string why;
    if (!in.open(wav, &why)) return fail(why);
    std::unique_ptr<lame_global_flags, int (*)(lame_global_flags*)> lame(lame_init(), lame_close);
    if (!lame) return fail("no memory for LAME");
    lame_global_flags* gf = lame.get();
    lame_set_num_channels(gf, in.channels);
    lame_set_in_samplerate(gf, in.rate);
    lame_set_brate(gf, kbps);
    lame_set_mode(gf, in.channels == 1 ? MONO : JOINT_STEREO);
    lame_set_bWriteVbrTag(gf, 1);
    lame_set_write_id3tag_automatic(gf, 0);
    if (lame_init_params(gf) < 0) return fail("LAME refused the settings");

    File file(fopen(out.c_str(), "wb"));
    if (!file) {
        int e = errno;
        return fail("cannot create the MP3 file: " + std::string(strerror(e)), diskFullErrno(e));
    }
    FILE* f = file.get();
    auto writeFailed = [&](const char* what) {
        int e = errno;
        return fail(std::string("cannot write the MP3 ") + what + ": " + strerror(e), diskFullErrno(e));
    };
    const std::string id3 = buildId3v2(tags);
    errno = 0;
    if (fwrite(id3.data(), 1, id3.size(), f) != id3.size()) return writeFailed("tags");

    std::vector<int32_t> buf(static_cast<size_t>(kBlockFrames * in.channels));
    std::vector<int> left(kBlockFrames), right(kBlockFrames);
    std::vector<unsigned char> mp3(static_cast<size_t>(kBlockFrames * 5 / 4 + 7200));
    const int shift = 32 - in.bits;
    Level level;
    for (;;) {
        if (cancel && cancel()) return cancelled();
        long n = in.read(buf.data(), kBlockFrames);
        if (n < 0) return fail("read error in the WAV");
        if (n == 0) break;
        level.add(buf.data(), n * in.channels, in.bits);
        for (long i = 0; i < n; i++) {
            // LAME takes full-scale 32-bit samples, whatever the source width.
            left[static_cast<size_t>(i)] = static_cast<int>(static_cast<uint32_t>(buf[static_cast<size_t>(i * in.channels)]) << shift);
            right[static_cast<size_t>(i)] =
                in.channels == 2 ? static_cast<int>(static_cast<uint32_t>(buf[static_cast<size_t>(i * 2 + 1)]) << shift)
                                 : left[static_cast<size_t>(i)];
        }
        int bytes = lame_encode_buffer_int(gf, left.data(), right.data(), static_cast<int>(n), mp3.data(),
                                           static_cast<int>(mp3.size()));
        if (bytes < 0) return fail("LAME failed (" + std::to_string(bytes) + ")");
        errno = 0;
        if (fwrite(mp3.data(), 1, static_cast<size_t>(bytes), f) != static_cast<size_t>(bytes)) return writeFailed("audio");
    }
    int bytes = lame_encode_flush(gf, mp3.data(), static_cast<int>(mp3.size()));
    if (bytes < 0) return fail("LAME failed to flush");
    errno = 0;
    if (fwrite(mp3.data(), 1, static_cast<size_t>(bytes), f) != static_cast<size_t>(bytes)) return writeFailed("audio");
    // The Info frame goes where LAME left room for it: the first frame.
    unsigned char info[2880];
    size_t infoSize = lame_get_lametag_frame(gf, info, sizeof info);
    if (infoSize > 0 && infoSize <= sizeof info) {
        if (fseek(f, static_cast<long>(id3.size()), SEEK_SET) != 0 || fwrite(info, 1, infoSize, f) != infoSize) {
            return writeFailed("Info frame");
        }
    }
    errno = 0;
    if (fflush(f) != 0 || fsync(fileno(f)) != 0) return writeFailed("file");
    if (fclose(file.release()) != 0) return writeFailed("file");
    CodecResult r;
    r.ok = true;
    r.rms = level.rms();
    return r;
}

CodecResult verifyMp3(const std::string& wav, const std::string& mp3, double sourceRms,
                      const CancelCheck& cancel) {
    WavReader in;
    std::string why;
    if (!in.open(wav, &why)) return fail(why);
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return fail("no pipe for the MP3 check");
    const std::string program = ffmpegPath();
    pid_t pid = spawnChild(program,
                           {program, "-nostdin", "-v", "error", "-i", mp3, "-f", "s16le", "-ac",
                            std::to_string(in.channels), "-ar", std::to_string(in.rate), "pipe:1"},
                           -1, false, pipeFds[1]);
    close(pipeFds[1]);
    if (pid < 0) {
        close(pipeFds[0]);
        return fail("cannot run " + program + " to check the MP3");
    }
    std::vector<int16_t> buf(32768);
    long long bytes = 0;
    double sum = 0;
    bool stopped = false;
    for (;;) {
        if (cancel && cancel()) {
            kill(pid, SIGKILL);
            stopped = true;
            break;
        }
        ssize_t n = ::read(pipeFds[0], buf.data(), buf.size() * sizeof(int16_t));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        // A read can end inside a sample: count whole samples only for the level.
        for (ssize_t i = 0; i < n / 2; i++) {
            double v = buf[static_cast<size_t>(i)] / 32768.0;
            sum += v * v;
        }
        bytes += n;
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (stopped) return cancelled();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return fail("the MP3 does not decode");
    const long frames = static_cast<long>(bytes / (2 * in.channels));
    if (std::labs(frames - in.frames) > 1152) {
        return fail("the MP3 decodes to " + std::to_string(frames) + " frames, the WAV has " +
                    std::to_string(in.frames));
    }
    if (sourceRms > 1e-4) {
        double rms = bytes ? std::sqrt(sum / static_cast<double>(bytes / 2)) : 0;
        double db = rms > 0 ? 20 * std::log10(rms / sourceRms) : -200;
        if (std::fabs(db) > 3) return fail("the MP3's level is " + std::to_string(db) + " dB off the WAV's");
    }
    CodecResult r;
    r.ok = true;
    return r;
}

// ------------------------------------------------------- renaming inside

namespace {

bool readWhole(const std::string& path, std::string* bytes) {
    File f(fopen(path.c_str(), "rb"));
    if (!f) return false;
    char buf[65536];
    bytes->clear();
    for (size_t n; (n = fread(buf, 1, sizeof buf, f.get())) > 0;) bytes->append(buf, n);
    return !ferror(f.get());
}

bool writeSynced(const std::string& path, const std::string& bytes) {
    File f(fopen(path.c_str(), "wb"));
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size() && fflush(f.get()) == 0 &&
              fsync(fileno(f.get())) == 0;
    return fclose(f.release()) == 0 && ok;
}

bool renameFlacInside(const std::string& temp, const char* artist, const char* album, const char* title,
                      std::string* why) {
    std::unique_ptr<FLAC__Metadata_Chain, void (*)(FLAC__Metadata_Chain*)> chain(FLAC__metadata_chain_new(),
                                                                                FLAC__metadata_chain_delete);
    if (!chain || !FLAC__metadata_chain_read(chain.get(), temp.c_str())) {
        *why = "not a FLAC file";
        return false;
    }
    std::unique_ptr<FLAC__Metadata_Iterator, void (*)(FLAC__Metadata_Iterator*)> it(FLAC__metadata_iterator_new(),
                                                                                   FLAC__metadata_iterator_delete);
    if (!it) return false;
    FLAC__metadata_iterator_init(it.get(), chain.get());
    FLAC__StreamMetadata* comments = nullptr;
    do {
        if (FLAC__metadata_iterator_get_block_type(it.get()) == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
            comments = FLAC__metadata_iterator_get_block(it.get());
            break;
        }
    } while (FLAC__metadata_iterator_next(it.get()));
    if (!comments) {
        FLAC__metadata_iterator_init(it.get(), chain.get());
        comments = FLAC__metadata_object_new(FLAC__METADATA_TYPE_VORBIS_COMMENT);
        if (!comments || !FLAC__metadata_iterator_insert_block_after(it.get(), comments)) {
            if (comments) FLAC__metadata_object_delete(comments);
            return false;
        }
    }
    for (const auto& [name, value] : {std::pair<const char*, const char*>{"ARTIST", artist},
                                      {"ALBUM", album}, {"TITLE", title}}) {
        if (!value) continue;
        FLAC__StreamMetadata_VorbisComment_Entry entry;
        if (!FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, name, value) ||
            !FLAC__metadata_object_vorbiscomment_replace_comment(comments, entry, true, false)) {
            *why = "cannot set the FLAC's names";
            return false;
        }
    }
    FLAC__metadata_chain_sort_padding(chain.get());
    if (!FLAC__metadata_chain_write(chain.get(), true, true)) {
        *why = "cannot write the FLAC's names";
        return false;
    }
    return true;
}

bool renameMp3Inside(std::string& bytes, const char* artist, const char* album, const char* title,
                     std::string* why) {
    if (bytes.size() < 10 || bytes.compare(0, 3, "ID3") != 0 || bytes[3] != 3) {
        *why = "no ID3v2.3 tag of kz's";
        return false;
    }
    size_t size = 0;
    for (int i = 6; i < 10; i++) size = (size << 7) | (static_cast<uint8_t>(bytes[static_cast<size_t>(i)]) & 0x7f);
    if (10 + size > bytes.size()) {
        *why = "the ID3 tag is longer than the file";
        return false;
    }
    std::string kept;
    for (size_t at = 10; at + 10 <= 10 + size && bytes[at] != 0;) {
        size_t n = be32(bytes, at + 4);
        if (at + 10 + n > 10 + size) break;
        std::string id = bytes.substr(at, 4);
        if (!((id == "TPE1" && artist) || (id == "TALB" && album) || (id == "TIT2" && title))) {
            kept += bytes.substr(at, 10 + n);
        }
        at += 10 + n;
    }
    std::string frames;
    for (const auto& [id, value] : {std::pair<const char*, const char*>{"TPE1", artist}, {"TALB", album},
                                    {"TIT2", title}}) {
        if (value) frame(frames, id, encodedText(value));
    }
    frames += kept;
    std::string tag = std::string("ID3\x03\0\0", 6);
    const uint32_t n = static_cast<uint32_t>(frames.size());
    for (int shift = 21; shift >= 0; shift -= 7) tag += static_cast<char>((n >> shift) & 0x7f);
    bytes = tag + frames + bytes.substr(10 + size);
    return true;
}

}  // namespace

bool rewriteCompressedNames(const std::string& path, const char* artist, const char* album,
                            const char* title, std::string* why) {
    const bool flac = path.size() > 5 && strcasecmp(path.c_str() + path.size() - 5, ".flac") == 0;
    const bool mp3 = path.size() > 4 && strcasecmp(path.c_str() + path.size() - 4, ".mp3") == 0;
    if (!flac && !mp3) {
        *why = "not a FLAC or MP3 file";
        return false;
    }
    std::string bytes;
    if (!readWhole(path, &bytes)) {
        *why = std::string("cannot read: ") + strerror(errno);
        return false;
    }
    std::string folder = path.substr(0, path.rfind('/') + 1);
    std::string temp = folder + ".kz-names.part";
    bool ok = mp3 ? renameMp3Inside(bytes, artist, album, title, why) && writeSynced(temp, bytes)
                  : writeSynced(temp, bytes) && renameFlacInside(temp, artist, album, title, why);
    if (ok) {
        int fd = open(temp.c_str(), O_RDONLY | O_CLOEXEC);
        ok = fd >= 0 && fsync(fd) == 0;
        if (fd >= 0) close(fd);
    }
    if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
        if (why->empty()) *why = std::string("cannot write: ") + strerror(errno);
        unlink(temp.c_str());
        return false;
    }
    return true;
}
