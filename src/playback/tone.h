// Volume and bass/treble: two shelving filters per channel and a gain,
// applied in place to each output period of 16-bit or 32-bit stereo.
#pragma once

#include <cstdint>
#include <mutex>

class ToneControl {
  public:
    static constexpr double kStepDb = 1.5;
    static constexpr int kMaxVolume = 64;

    ToneControl();
    // The filters' corners are set for this rate (44100 unless told).
    void setRate(int rate);
    // Bass and treble in steps of 1.5 dB, -6 to 6.
    void setBassTreble(int bass, int treble);
    // 0 (silent) to 64 (full level); each step below 64 takes 0.75 dB off.
    void setVolume(int volume);
    int volume() const { return volume_; }
    // Filters and scales frames of interleaved stereo in place.
    void process(int16_t* samples, int frames);
    void process(int32_t* samples, int frames);
    // True when process() would leave every sample as it is.
    bool isFlat() const;

  private:
    struct Biquad {
        double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
        double z1[2] = {0, 0}, z2[2] = {0, 0};
        double run(double x, int ch);
    };
    Biquad shelf(bool low, double freq, double gainDb) const;
    void design();
    template <typename Sample>
    void run(Sample* samples, int frames, double lowest, double highest);
    template <typename Sample>
    void scale(Sample* samples, int frames);

    mutable std::mutex mutex_;
    Biquad bass_, treble_;
    int bassSteps_ = 0, trebleSteps_ = 0;
    int volume_ = kMaxVolume;
    double rate_ = 44100.0;
    double gain_ = 1.0;
    // gain_ in fixed point for the usual case of volume alone (no bass or
    // treble): gain_ * 2^40 for 16-bit samples, gain_ * 2^31 for 32-bit
    // ones, so that a sample times it always fits in 64 bits.
    int64_t gain16_ = int64_t{1} << 40;
    int64_t gain32_ = int64_t{1} << 31;
};
