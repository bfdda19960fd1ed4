#include "ratio_table.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace cpd::bench {

namespace {

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void PrintRatioHeader(const std::string& base, const std::string& measured) {
  std::printf("| what | %s, per second | %s, per second | ratio | range | bound | |\n",
              base.c_str(), measured.c_str());
  std::puts("|---|--:|--:|--:|--:|--:|---|");
}

bool PrintRatioRow(const std::string& name, const Turns& turns, Bound bound) {
  const double ratio = Median(turns.ratios);
  const auto [least, most] = std::ranges::minmax(turns.ratios);
  const bool ok = bound.is_most ? ratio <= bound.value : ratio >= bound.value;
  std::printf("| %s | %.4g | %.4g | **%.2f** | %.2f–%.2f | %s %g | %s |\n", name.c_str(),
              Median(turns.base_rates), Median(turns.rates), ratio, least, most,
              bound.is_most ? "≤" : "≥", bound.value,
              ok ? "ok" : (bound.is_most ? "above" : "below"));
  (void)std::fflush(stdout);
  return ok;
}

}  // namespace cpd::bench
