#include "radio/icy.h"

#include <algorithm>
#include <cstring>

IcySplitter::IcySplitter(long metaint, AudioSink audio, TitleSink title)
    : metaint_(metaint > 0 ? metaint : 0),
      audio_(std::move(audio)),
      title_(std::move(title)),
      audioLeft_(metaint_) {}

bool IcySplitter::feed(const char* data, size_t length) {
    if (metaint_ == 0) return length == 0 || audio_(data, length);
    while (length > 0) {
        switch (state_) {
            case State::Audio: {
                size_t n = std::min(length, static_cast<size_t>(audioLeft_));
                if (!audio_(data, n)) return false;
                data += n;
                length -= n;
                audioLeft_ -= static_cast<long>(n);
                if (audioLeft_ == 0) state_ = State::Length;
                break;
            }
            case State::Length:
                metaLeft_ = static_cast<unsigned char>(*data) * 16u;
                data++;
                length--;
                meta_.clear();
                if (metaLeft_ == 0) {
                    state_ = State::Audio;
                    audioLeft_ = metaint_;
                } else {
                    state_ = State::Meta;
                }
                break;
            case State::Meta: {
                size_t n = std::min(length, metaLeft_);
                meta_.append(data, n);
                data += n;
                length -= n;
                metaLeft_ -= n;
                if (metaLeft_ == 0) {
                    finishBlock();
                    state_ = State::Audio;
                    audioLeft_ = metaint_;
                }
                break;
            }
        }
    }
    return true;
}

void IcySplitter::finishBlock() {
    // Blocks are padded with NULs to a multiple of 16.
    meta_.resize(strnlen(meta_.data(), meta_.size()));
    if (meta_.find("StreamTitle=") == std::string::npos) return;
    std::string title = icyStreamTitle(meta_);
    if (title == lastTitle_) return;
    lastTitle_ = title;
    if (title_) title_(title);
}

std::string cleanStreamText(const std::string& text, size_t maxBytes) {
    std::string out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        unsigned char c = p[i];
        size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        bool valid = len > 0 && i + len <= n;
        for (size_t k = 1; valid && k < len; k++)
            valid = (p[i + k] & 0xC0) == 0x80;
        if (valid && len > 1) {
            // Overlong forms, surrogates and values past U+10FFFF are not text.
            unsigned cp = len == 2 ? ((c & 0x1F) << 6) | (p[i + 1] & 0x3F)
                          : len == 3
                              ? ((c & 0x0F) << 12) | ((p[i + 1] & 0x3F) << 6) | (p[i + 2] & 0x3F)
                              : ((c & 0x07) << 18) | ((p[i + 1] & 0x3F) << 12) |
                                    ((p[i + 2] & 0x3F) << 6) | (p[i + 3] & 0x3F);
            unsigned least = len == 2 ? 0x80 : len == 3 ? 0x800 : 0x10000;
            valid = cp >= least && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
        }
        std::string piece;
        if (valid && len == 1) {
            // Control characters (tabs and line ends too) become a space.
            piece = c < 0x20 || c == 0x7F ? " " : std::string(1, static_cast<char>(c));
            i++;
        } else if (valid) {
            piece.assign(text, i, len);
            i += len;
        } else {
            // Many stations still send Latin-1.
            if (c < 0xA0) {
                piece = " ";
            } else {
                piece += static_cast<char>(0xC0 | (c >> 6));
                piece += static_cast<char>(0x80 | (c & 0x3F));
            }
            i++;
        }
        if (out.size() + piece.size() > maxBytes) break;
        out += piece;
    }
    size_t b = out.find_first_not_of(' ');
    if (b == std::string::npos) return "";
    size_t e = out.find_last_not_of(' ');
    return out.substr(b, e - b + 1);
}

std::string icyStreamTitle(const std::string& block, size_t maxBytes) {
    static const char kKey[] = "StreamTitle=";
    size_t at = block.find(kKey);
    if (at == std::string::npos) return "";
    at += sizeof kKey - 1;
    std::string value;
    if (at < block.size() && (block[at] == '\'' || block[at] == '"')) {
        char quote = block[at];
        at++;
        // Titles hold apostrophes of their own ("Don't Stop"): the value
        // ends at the quote before ";" and the next key, or at the last quote.
        std::string endMark = std::string(1, quote) + ";";
        size_t end = std::string::npos;
        for (size_t p = block.find(endMark, at); p != std::string::npos;
             p = block.find(endMark, p + 1)) {
            size_t next = p + 2;
            if (next >= block.size() || block.compare(next, 6, "Stream") == 0) {
                end = p;
                break;
            }
        }
        if (end == std::string::npos) end = block.rfind(quote);
        if (end == std::string::npos || end < at) end = block.size();
        value = block.substr(at, end - at);
    } else {
        value = block.substr(at, block.find(';', at) - at);
    }
    return cleanStreamText(value, maxBytes);
}
