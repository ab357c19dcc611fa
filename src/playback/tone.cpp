#include "playback/tone.h"

#include <cmath>

namespace {
constexpr double kBassHz = 250.0;
constexpr double kTrebleHz = 4000.0;

// std::round (halves away from zero) for a value already within the sample
// range, without the library call it costs per sample: the fraction after
// truncation is exact in a double.
inline int64_t roundHalfAway(double x) {
    int64_t i = static_cast<int64_t>(x);
    double fraction = x - static_cast<double>(i);
    if (fraction >= 0.5) return i + 1;
    if (fraction <= -0.5) return i - 1;
    return i;
}

// x * gain / 2^Bits rounded with halves away from zero, without a branch:
// one less before the shift rounds a negative half down instead of up.
template <int Bits>
inline int64_t scaleFixed(int64_t x, int64_t gain) {
    constexpr int64_t half = int64_t{1} << (Bits - 1);
    int64_t v = x * gain;
    return (v + half + (v >> 63)) >> Bits;
}
}  // namespace

ToneControl::ToneControl() {
    design();
}

void ToneControl::setRate(int rate) {
    std::lock_guard<std::mutex> g(mutex_);
    if (rate <= 0 || rate == rate_) return;
    rate_ = rate;
    design();
}

double ToneControl::Biquad::run(double x, int ch) {
    // Transposed direct form II: two state values per channel.
    double y = b0 * x + z1[ch];
    z1[ch] = b1 * x - a1 * y + z2[ch];
    z2[ch] = b2 * x - a2 * y;
    return y;
}

// A shelving filter with a slope of 1 from the usual audio-EQ design
// equations: gainDb above (high shelf) or below (low shelf) freq.
ToneControl::Biquad ToneControl::shelf(bool low, double freq, double gainDb) const {
    Biquad q;
    if (gainDb == 0) return q;
    double A = std::pow(10.0, gainDb / 40.0);
    double w = 2 * M_PI * freq / rate_;
    double cw = std::cos(w), sw = std::sin(w);
    double alpha = sw / 2 * std::sqrt(2.0);
    double sq = 2 * std::sqrt(A) * alpha;
    double b0, b1, b2, a0, a1, a2;
    if (low) {
        b0 = A * ((A + 1) - (A - 1) * cw + sq);
        b1 = 2 * A * ((A - 1) - (A + 1) * cw);
        b2 = A * ((A + 1) - (A - 1) * cw - sq);
        a0 = (A + 1) + (A - 1) * cw + sq;
        a1 = -2 * ((A - 1) + (A + 1) * cw);
        a2 = (A + 1) + (A - 1) * cw - sq;
    } else {
        b0 = A * ((A + 1) + (A - 1) * cw + sq);
        b1 = -2 * A * ((A - 1) + (A + 1) * cw);
        b2 = A * ((A + 1) + (A - 1) * cw - sq);
        a0 = (A + 1) - (A - 1) * cw + sq;
        a1 = 2 * ((A - 1) - (A + 1) * cw);
        a2 = (A + 1) - (A - 1) * cw - sq;
    }
    q.b0 = b0 / a0;
    q.b1 = b1 / a0;
    q.b2 = b2 / a0;
    q.a1 = a1 / a0;
    q.a2 = a2 / a0;
    return q;
}

void ToneControl::setBassTreble(int bass, int treble) {
    std::lock_guard<std::mutex> g(mutex_);
    bass = bass < -6 ? -6 : bass > 6 ? 6 : bass;
    treble = treble < -6 ? -6 : treble > 6 ? 6 : treble;
    if (bass == bassSteps_ && treble == trebleSteps_) return;
    bassSteps_ = bass;
    trebleSteps_ = treble;
    design();
}

void ToneControl::design() {
    bass_ = shelf(true, kBassHz, bassSteps_ * kStepDb);
    treble_ = shelf(false, kTrebleHz, trebleSteps_ * kStepDb);
}

void ToneControl::setVolume(int volume) {
    std::lock_guard<std::mutex> g(mutex_);
    volume_ = volume < 0 ? 0 : volume > kMaxVolume ? kMaxVolume : volume;
    gain_ = volume_ == 0 ? 0.0 : std::pow(10.0, (volume_ - kMaxVolume) * 0.75 / 20.0);
    gain16_ = std::llround(std::ldexp(gain_, 40));
    gain32_ = std::llround(std::ldexp(gain_, 31));
}

bool ToneControl::isFlat() const {
    std::lock_guard<std::mutex> g(mutex_);
    return bassSteps_ == 0 && trebleSteps_ == 0 && volume_ == kMaxVolume;
}

// Volume alone: a gain of at most 1 never leaves the sample range.
template <>
void ToneControl::scale(int16_t* samples, int frames) {
    const int64_t gain = gain16_;
    for (int i = 0; i < frames * 2; i++)
        samples[i] = static_cast<int16_t>(scaleFixed<40>(samples[i], gain));
}

template <>
void ToneControl::scale(int32_t* samples, int frames) {
    const int64_t gain = gain32_;
    for (int i = 0; i < frames * 2; i++)
        samples[i] = static_cast<int32_t>(scaleFixed<31>(samples[i], gain));
}

template <typename Sample>
void ToneControl::run(Sample* samples, int frames, double lowest, double highest) {
    std::lock_guard<std::mutex> g(mutex_);
    if (bassSteps_ == 0 && trebleSteps_ == 0 && volume_ == kMaxVolume) return;
    if (bassSteps_ == 0 && trebleSteps_ == 0) {
        // The usual case, and the one that ran for every sample of every
        // period in floating point: it was nearly all of the output
        // thread's time.
        scale(samples, frames);
        return;
    }
    for (int i = 0; i < frames * 2; i++) {
        double x = treble_.run(bass_.run(samples[i], i & 1), i & 1) * gain_;
        x = x > highest ? highest : x < lowest ? lowest : x;
        samples[i] = static_cast<Sample>(roundHalfAway(x));
    }
}

void ToneControl::process(int16_t* samples, int frames) {
    run(samples, frames, -32768.0, 32767.0);
}

void ToneControl::process(int32_t* samples, int frames) {
    run(samples, frames, -2147483648.0, 2147483647.0);
}
