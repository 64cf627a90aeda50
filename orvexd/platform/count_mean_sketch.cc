#include "orvexd/platform/count_mean_sketch.h"

#include <openssl/sha.h>

#include <cmath>

namespace orvex {

double CountMeanSketchParameters::flipProbability() const {
  return 1.0 / (1.0 + std::exp(epsilon / 2.0));
}

bool CountMeanSketchParameters::valid() const {
  const bool powerOfTwo = width >= 8 && width <= 65536 && (width & (width - 1)) == 0;
  return powerOfTwo && hashCount > 0 && std::isfinite(epsilon) && epsilon > 0;
}

uint32_t countMeanSketchPosition(uint32_t hashIndex, std::string_view text, uint32_t width) {
  std::string input;
  input.reserve(4 + text.size());
  for (int shift = 24; shift >= 0; shift -= 8)
    input += static_cast<char>((hashIndex >> shift) & 0xff);
  input.append(text);
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const uint8_t*>(input.data()), input.size(), digest);
  return ((uint32_t{digest[0]} << 8) | digest[1]) % width;
}

CountMeanSketchEstimator::CountMeanSketchEstimator(CountMeanSketchParameters parameters)
    : parameters_(parameters) {}

bool CountMeanSketchEstimator::add(PrivatizedReport report) {
  if (report.hashIndex >= parameters_.hashCount ||
      report.bits.size() != parameters_.vectorBytes()) {
    return false;
  }
  reports_.push_back(std::move(report));
  return true;
}

double CountMeanSketchEstimator::estimate(std::string_view text) const {
  const double m = parameters_.width;
  const double e = std::exp(parameters_.epsilon / 2.0);
  const double c = (e + 1.0) / (e - 1.0);
  // Positions by hash index, computed once each: with more reports than hash functions most
  // indices repeat.
  std::vector<int32_t> positions(parameters_.hashCount, -1);
  double sum = 0;
  for (const auto& report : reports_) {
    int32_t& position = positions[report.hashIndex];
    if (position < 0) {
      position =
          static_cast<int32_t>(countMeanSketchPosition(report.hashIndex, text, parameters_.width));
    }
    const auto entry = static_cast<uint32_t>(position);
    const double value = (report.bits[entry / 8] >> (entry % 8)) & 1 ? 1.0 : -1.0;
    sum += c / 2.0 * value + 0.5;
  }
  const double n = static_cast<double>(reports_.size());
  return m / (m - 1.0) * (sum - n / m);
}

double CountMeanSketchEstimator::standardDeviation(double frequency) const {
  const double m = parameters_.width;
  const double e = std::exp(parameters_.epsilon / 2.0);
  const double c = (e + 1.0) / (e - 1.0);
  const double n = static_cast<double>(reports_.size());
  const double variance = n * (c * c - 1.0) / 4.0 + (n - frequency) * (1.0 / m) * (1.0 - 1.0 / m);
  return m / (m - 1.0) * std::sqrt(variance);
}

}  // namespace orvex
