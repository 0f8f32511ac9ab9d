// How long something took, sorted into buckets.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace trabex {

class Histogram {
 public:
  // The upper ends of the buckets in seconds; what took longer is in none of them, and counts in Count().
  static constexpr std::array<double, 14> kBounds = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                     0.1,    0.25,  0.5,    1,     2.5,  5,     10};

  void Observe(std::chrono::nanoseconds time) {
    const double seconds = std::chrono::duration<double>(time).count();
    std::size_t bucket = 0;
    while (bucket < kBounds.size() && seconds > kBounds[bucket]) ++bucket;
    ++counts_[bucket];
    sum_ += time;
  }

  // Those that took no longer than kBounds[bucket].
  std::uint64_t UpTo(std::size_t bucket) const {
    std::uint64_t count = 0;
    for (std::size_t i = 0; i <= bucket; ++i) count += counts_[i];
    return count;
  }
  std::uint64_t Count() const { return UpTo(kBounds.size()); }
  double SumSeconds() const { return std::chrono::duration<double>(sum_).count(); }

 private:
  std::array<std::uint64_t, kBounds.size() + 1> counts_{};  // the last one: longer than all bounds
  std::chrono::nanoseconds sum_{0};
};

}  // namespace trabex
