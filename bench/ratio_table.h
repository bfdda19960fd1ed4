// The tables of ratios. A row compares two loads that take turns: each ratio is that of two
// consecutive turns.
#pragma once

#include <string>
#include <vector>

namespace cpd::bench {

/// The results of one row's turns, in order.
struct Turns {
  std::vector<double> base_rates;  ///< operations per second
  std::vector<double> rates;
  std::vector<double> ratios;
};

struct Bound {
  bool is_most;  ///< an upper bound; otherwise a lower one
  double value;
};

void PrintRatioHeader(const std::string& base, const std::string& measured);
/// Prints medians, and the range of the ratios. @return whether the median is within its bound
bool PrintRatioRow(const std::string& name, const Turns& turns, Bound bound);

}  // namespace cpd::bench
