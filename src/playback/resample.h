// 16-bit stereo at 44100 Hz made into 32-bit stereo at 96000 Hz, for the
// sources that only ever come at CD rate (the disc, the browser's stream)
// when the output runs in high resolution. Linear interpolation between
// neighbouring frames: a disc has nothing above 22 kHz to keep apart, and the
// cost stays a few operations a sample on the box.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

class Upsampler {
  public:
    // Fills dst with up to n frames of 16-bit stereo; returns how many.
    using Source = std::function<int(int16_t* dst, int n)>;

    // Fills frames of the output; returns how many came from the source (0
    // once it has nothing more), the rest being zeros.
    int pull(int32_t* out, int frames, const Source& source);
    // Forgets the frames held between two calls (a new stream starts).
    void reset();
    // The source's rate when it is not 44100 Hz (a browser may send 48000):
    // played at the output's rate it would run fast or slow.
    void setRates(int inRate, int outRate);

  private:
    // Output frames step through the input in kIn ths of kOut (44100/96000
    // reduced, unless setRates said otherwise).
    int kIn = 147;
    int kOut = 320;
    int phase_ = 0;  // how far from prev_ towards next_, in 320ths
    int16_t prev_[2] = {0, 0};
    int16_t next_[2] = {0, 0};
    std::vector<int16_t> in_;
};
