#include "playback/tone.h"

#include <cmath>

namespace {
constexpr double kRate = 44100.0;
constexpr double kBassHz = 250.0;
constexpr double kTrebleHz = 4000.0;
}  // namespace

ToneControl::ToneControl() {
    setBassTreble(0, 0);
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
ToneControl::Biquad ToneControl::shelf(bool low, double freq, double gainDb) {
    Biquad q;
    if (gainDb == 0) return q;
    double A = std::pow(10.0, gainDb / 40.0);
    double w = 2 * M_PI * freq / kRate;
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
    bass_ = shelf(true, kBassHz, bass * kStepDb);
    treble_ = shelf(false, kTrebleHz, treble * kStepDb);
}

void ToneControl::setVolume(int volume) {
    std::lock_guard<std::mutex> g(mutex_);
    volume_ = volume < 0 ? 0 : volume > kMaxVolume ? kMaxVolume : volume;
    gain_ = volume_ == 0 ? 0.0 : std::pow(10.0, (volume_ - kMaxVolume) * 0.75 / 20.0);
}

bool ToneControl::isFlat() const {
    std::lock_guard<std::mutex> g(mutex_);
    return bassSteps_ == 0 && trebleSteps_ == 0 && volume_ == kMaxVolume;
}

void ToneControl::process(int16_t* samples, int frames) {
    std::lock_guard<std::mutex> g(mutex_);
    if (bassSteps_ == 0 && trebleSteps_ == 0 && volume_ == kMaxVolume) return;
    const bool filter = bassSteps_ != 0 || trebleSteps_ != 0;
    for (int i = 0; i < frames * 2; i++) {
        double x = samples[i];
        if (filter) x = treble_.run(bass_.run(x, i & 1), i & 1);
        x *= gain_;
        long v = std::lround(x);
        samples[i] = static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v);
    }
}
