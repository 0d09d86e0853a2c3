// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Signals with an exact delay and clock rate, and the file that carries one, for the tests of the
// fine alignment: what a second device would have recorded of the same sound.

#include "TrelvaneEngine/features/FineAlign.hpp"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <vector>

namespace trelvane::test {

inline constexpr int kRate = FineAlign::kSampleRate;

inline std::vector<float> noise(std::size_t n, unsigned seed, float level = 1.0f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, level);
    std::vector<float> v(n);
    for (auto& x : v)
        x = dist(rng);
    return v;
}

// y[n] = x(n * ratio - shift), x interpolated by a sinc 64 taps wide under a (1 - u^2)^3 window:
// a delay of `shift` samples and a clock `ratio` times as fast, as a second device would record it.
inline std::vector<float> resample(const std::vector<float>& x, double ratio, double shift, std::size_t n) {
    constexpr int half = 32;
    std::vector<float> y(n, 0.0f);
    for (std::size_t i = 0; i < n; ++i) {
        const double at = double(i) * ratio - shift;
        const auto base = static_cast<long>(std::floor(at));
        const double fraction = at - double(base);
        if (fraction == 0) {
            y[i] = base >= 0 && base < long(x.size()) ? x[std::size_t(base)] : 0.0f;
            continue;
        }
        // sin(pi (fraction + m)) alternates in sign with m, so one sine serves every tap.
        const double sine = std::sin(std::numbers::pi * fraction) / std::numbers::pi;
        double sum = 0;
        for (long k = base - half + 1; k <= base + half; ++k) {
            if (k < 0 || k >= long(x.size())) continue;
            const double t = at - double(k);
            const double u = t / half;
            const double w = (1 - u * u) * (1 - u * u) * (1 - u * u);
            sum += x[std::size_t(k)] * ((base - k) % 2 == 0 ? sine : -sine) / t * w;
        }
        y[i] = float(sum);
    }
    return y;
}

// A mono 32-bit float WAV file at the refinement's rate.
inline void writeWav(const std::filesystem::path& path, const std::vector<float>& samples) {
    std::ofstream f(path, std::ios::binary);
    const auto u32 = [&](std::uint32_t v) { f.write(reinterpret_cast<const char*>(&v), 4); };
    const auto u16 = [&](std::uint16_t v) { f.write(reinterpret_cast<const char*>(&v), 2); };
    const auto bytes = std::uint32_t(samples.size() * 4);
    f.write("RIFF", 4);
    u32(36 + bytes);
    f.write("WAVEfmt ", 8);
    u32(16);
    u16(3); // IEEE float
    u16(1);
    u32(kRate);
    u32(kRate * 4);
    u16(4);
    u16(32);
    f.write("data", 4);
    u32(bytes);
    f.write(reinterpret_cast<const char*>(samples.data()), std::streamsize(bytes));
}

} // namespace trelvane::test
