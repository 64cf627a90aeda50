// What the D-Bus benchmarks share: the daemon's bag for them and the figures of a run.
#pragma once

#include <algorithm>
#include <vector>

namespace orvex::bench {

// The back-end's bag: enabled, searches at its "/search".
inline constexpr char kSearchBag[] =
    R"({"version": "1", "enabled": true, "search_url": "${BASE_URL}/search"})";

struct Figures {
  double median;
  double p90;
};

inline Figures figures(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return {samples[samples.size() / 2], samples[samples.size() * 9 / 10]};
}

}  // namespace orvex::bench
