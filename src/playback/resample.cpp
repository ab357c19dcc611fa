#include "playback/resample.h"

#include <cstring>
#include <numeric>

int Upsampler::pull(int32_t* out, int frames, const Source& source) {
    const int need = (phase_ + frames * kIn) / kOut;
    in_.resize(static_cast<size_t>(need) * 2 + 2);
    const int got = need > 0 ? source(in_.data(), need) : 0;
    if (need > 0 && got <= 0) {
        memset(out, 0, static_cast<size_t>(frames) * 8);
        return 0;
    }
    int used = 0;
    int f = 0;
    while (f < frames) {
        for (int c = 0; c < 2; c++) {
            int64_t mixed = static_cast<int64_t>(prev_[c]) * (kOut - phase_) +
                            static_cast<int64_t>(next_[c]) * phase_;
            // From 320ths of a 16-bit step to the 32-bit scale.
            out[2 * f + c] = static_cast<int32_t>(mixed * 65536 / kOut);
        }
        f++;
        phase_ += kIn;
        bool dry = false;
        while (phase_ >= kOut) {
            if (used == got) {
                dry = true;
                break;
            }
            phase_ -= kOut;
            prev_[0] = next_[0];
            prev_[1] = next_[1];
            next_[0] = in_[2 * used];
            next_[1] = in_[2 * used + 1];
            used++;
        }
        if (dry) {
            // The source ended inside this period: what is left of it has
            // been played.
            phase_ = 0;
            break;
        }
    }
    if (f < frames) memset(out + 2 * f, 0, static_cast<size_t>(frames - f) * 8);
    return f;
}

void Upsampler::reset() {
    phase_ = 0;
    prev_[0] = prev_[1] = next_[0] = next_[1] = 0;
}

void Upsampler::setRates(int inRate, int outRate) {
    if (inRate <= 0 || outRate <= 0) return;
    int g = std::gcd(inRate, outRate);
    if (kIn == inRate / g && kOut == outRate / g) return;
    kIn = inRate / g;
    kOut = outRate / g;
    reset();
}
