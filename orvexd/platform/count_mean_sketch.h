// The count-mean sketch: local differential privacy for strings.
//
// A device never keeps or sends a string itself. For each string it records, it picks one of k
// hash functions at random, builds a vector of m entries that are all -1 except +1 at the
// string's position under that hash, and flips every entry independently with probability
// 1 / (1 + e^(ε/2)). Only the hash index and the noised vector are kept: one report is
// ε-differentially private, whatever the string was.
//
// A collector that holds many reports estimates how often a candidate string was recorded,
// without bias, by summing each report's debiased entry at the candidate's position under the
// report's hash (see CountMeanSketchEstimator). No single report says which string it came from.
//
// The hash functions: position_j(s) = the first two bytes of SHA-256(j as 4 bytes, big-endian,
// followed by s), big-endian, modulo m. m must divide 65,536, so every position is equally
// likely.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

struct CountMeanSketchParameters {
  uint32_t hashCount = 65536;  // k
  uint32_t width = 1024;       // m: a power of two from 8 to 65,536
  double epsilon = 4.0;        // ε of one report

  // Probability that one entry of a report is flipped: 1 / (1 + e^(ε/2)).
  double flipProbability() const;
  // Bytes of a report's vector: one bit per entry, set for +1.
  size_t vectorBytes() const { return width / 8; }
  bool valid() const;
};

struct PrivatizedReport {
  uint32_t hashIndex = 0;
  // Entry i is +1 when bit (i % 8) of byte i / 8 is set (least significant bit first), else -1.
  std::vector<uint8_t> bits;
};

// The position of `text` under hash function `hashIndex`.
uint32_t countMeanSketchPosition(uint32_t hashIndex, std::string_view text, uint32_t width);

// Privatizes `text`. `random` gives uniform 64-bit values: a cryptographic source on a device,
// anything fast in a simulation.
template <typename Random>
PrivatizedReport privatizeWithCountMeanSketch(std::string_view text,
                                              const CountMeanSketchParameters& parameters,
                                              Random& random) {
  PrivatizedReport report;
  report.hashIndex = static_cast<uint32_t>(random() % parameters.hashCount);
  const uint32_t position = countMeanSketchPosition(report.hashIndex, text, parameters.width);
  // An entry flips when a uniform 32-bit draw falls below p · 2^32.
  const auto threshold = static_cast<uint64_t>(parameters.flipProbability() * 4294967296.0);
  report.bits.assign(parameters.vectorBytes(), 0);
  for (uint32_t i = 0; i < parameters.width; i += 2) {
    const uint64_t draw = random();
    for (uint32_t half = 0; half < 2; ++half) {
      const uint32_t entry = i + half;
      const bool plusOne = entry == position;
      const bool flipped = ((draw >> (32 * half)) & 0xffffffffu) < threshold;
      if (plusOne != flipped) report.bits[entry / 8] |= static_cast<uint8_t>(1u << (entry % 8));
    }
  }
  return report;
}

// The collector's side: estimates frequencies from a set of reports.
class CountMeanSketchEstimator {
 public:
  explicit CountMeanSketchEstimator(CountMeanSketchParameters parameters);

  // Reports of another shape (wrong vector size, index out of range) are refused: false.
  bool add(PrivatizedReport report);
  size_t reportCount() const { return reports_.size(); }

  // The unbiased estimate of how many of the reports came from `text`:
  // m/(m-1) · Σ_reports (c/2 · v[position] + 1/2 − 1/m), with c = (e^(ε/2)+1)/(e^(ε/2)−1).
  double estimate(std::string_view text) const;
  // The standard deviation of estimate() for a string that was recorded `frequency` times among
  // n reports: m/(m-1) · sqrt(n (c²−1)/4 + (n − frequency)(1/m)(1 − 1/m)).
  double standardDeviation(double frequency) const;

 private:
  CountMeanSketchParameters parameters_;
  std::vector<PrivatizedReport> reports_;
};

}  // namespace orvex
