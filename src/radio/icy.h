// ICY (SHOUTcast/Icecast) metadata: with "Icy-MetaData: 1" asked for, the
// server puts a metadata block after every icy-metaint bytes of audio. The
// splitter takes those blocks out so the decoder sees only audio, and hands
// on each new StreamTitle.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

class IcySplitter {
  public:
    using AudioSink = std::function<bool(const char* data, size_t length)>;
    using TitleSink = std::function<void(const std::string& title)>;

    // metaint 0: the stream carries no metadata, every byte is audio.
    IcySplitter(long metaint, AudioSink audio, TitleSink title);

    // False when the audio sink refused bytes (the decoder went away).
    bool feed(const char* data, size_t length);

  private:
    void finishBlock();

    long metaint_;
    AudioSink audio_;
    TitleSink title_;
    long audioLeft_;
    enum class State { Audio, Length, Meta } state_ = State::Audio;
    size_t metaLeft_ = 0;
    std::string meta_;
    std::string lastTitle_;
};

// The StreamTitle of one metadata block ("StreamTitle='A - B';StreamUrl='';"),
// cleaned for showing: valid UTF-8 (bytes that are not are taken as Latin-1),
// no control characters, at most maxBytes. Empty when the block has none.
std::string icyStreamTitle(const std::string& block, size_t maxBytes = 512);
// Any text from a stream's headers made safe to show, as above.
std::string cleanStreamText(const std::string& text, size_t maxBytes = 512);
