// SPDX-License-Identifier: GPL-3.0-or-later
// Extracts the analysis stream of one file and prints how long that took:
//   trelvane_extract_bench FILE [EXPECTED_SECONDS]
// prints "seconds=<wall time> samples=<count> duration=<seconds of audio> peak=<largest magnitude>".

#include "TrelvaneEngine/media/AudioExtractor.hpp"
#include "TrelvaneEngine/model/TrelvaneError.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    using namespace trelvane;
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s FILE [EXPECTED_SECONDS]\n", argv[0]);
        return 2;
    }
    const double expected = argc == 3 ? std::atof(argv[2]) : 0.0;
    const auto begin = std::chrono::steady_clock::now();
    try {
        const auto result = AudioExtractor::extract(Url::fromPath(argv[1]), expected);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        float peak = 0;
        for (const float x : result.samples)
            peak = std::max(peak, std::abs(x));
        std::printf("seconds=%.3f samples=%zu duration=%.3f peak=%.6f\n", took.count(), result.samples.size(),
                    result.duration, static_cast<double>(peak));
    } catch (const TrelvaneError& e) {
        std::fprintf(stderr, "%s\n", e.description().c_str());
        return 1;
    }
    return 0;
}
