// How useful the differential-privacy reports are: 100,000 simulated devices each report one of
// 1,000 links drawn from a Zipf distribution (exponent 1), privatized exactly as the daemon's
// recorder does (ε = 4, k = 65,536, m = 1,024). The collector's estimates of the 20 most frequent
// links are compared with the true counts and with the sketch's theoretical standard deviation.
//
// Usage: orvex_bench_dp_sketch [devices] [links] [seed]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "orvexd/platform/count_mean_sketch.h"

int main(int argc, char** argv) {
  using namespace orvex;
  const long devices = argc > 1 ? std::atol(argv[1]) : 100000;
  const long links = argc > 2 ? std::atol(argv[2]) : 1000;
  const unsigned long seed = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1;
  if (devices <= 0 || links < 20) {
    std::fprintf(stderr, "usage: %s [devices] [links >= 20] [seed]\n", argv[0]);
    return 2;
  }

  // Zipf weights 1/r for the link of rank r.
  std::vector<double> weights(static_cast<size_t>(links));
  for (size_t r = 0; r < weights.size(); ++r) weights[r] = 1.0 / static_cast<double>(r + 1);
  std::discrete_distribution<size_t> zipf(weights.begin(), weights.end());
  const auto linkText = [](size_t rank) {
    return "https://example.com/app/page/" + std::to_string(rank);
  };

  const CountMeanSketchParameters parameters;
  CountMeanSketchEstimator estimator(parameters);
  std::mt19937_64 random(seed);
  std::vector<long> truth(weights.size(), 0);
  const auto start = std::chrono::steady_clock::now();
  for (long d = 0; d < devices; ++d) {
    const size_t rank = zipf(random);
    ++truth[rank];
    estimator.add(privatizeWithCountMeanSketch(linkText(rank), parameters, random));
  }
  const auto privatized = std::chrono::steady_clock::now();

  std::printf("devices %ld, links %ld (Zipf, exponent 1), epsilon %.1f, k %u, m %u\n", devices,
              links, parameters.epsilon, parameters.hashCount, parameters.width);
  std::printf("%4s %8s %10s %9s %9s %8s\n", "rank", "true", "estimate", "error", "sd", "err/sd");
  double squaredError = 0;
  double meanSd = 0;
  int within1 = 0;
  int within2 = 0;
  for (size_t rank = 0; rank < 20; ++rank) {
    const double estimate = estimator.estimate(linkText(rank));
    const double sd = estimator.standardDeviation(static_cast<double>(truth[rank]));
    const double error = estimate - static_cast<double>(truth[rank]);
    squaredError += error * error;
    meanSd += sd / 20;
    within1 += std::fabs(error) <= sd;
    within2 += std::fabs(error) <= 2 * sd;
    std::printf("%4zu %8ld %10.1f %9.1f %9.1f %8.2f\n", rank + 1, truth[rank], estimate, error, sd,
                error / sd);
  }
  const auto estimated = std::chrono::steady_clock::now();
  const auto ms = [](auto a, auto b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
  };
  std::printf(
      "top 20: RMS error %.1f, mean theoretical sd %.1f, within 1 sd %d/20, within 2 sd "
      "%d/20\n",
      std::sqrt(squaredError / 20), meanSd, within1, within2);
  std::printf("privatize %ld reports: %.0f ms; estimate 20 links: %.0f ms\n", devices,
              ms(start, privatized), ms(privatized, estimated));
  return 0;
}
