// The tables of ratios: a row compares two loads by pairs of neighbouring turns.
#pragma once

#include <string>
#include <vector>

namespace cpd::bench {

/// What came of one row's turns, in order.
struct Turns {
  std::vector<double> base_rates;  ///< operations a second
  std::vector<double> rates;
  std::vector<double> ratios;
};

struct Bound {
  bool is_most;  ///< else the least
  double value;
};

void PrintRatioHeader(const std::string& base, const std::string& measured);
/// Prints medians, and the range of the ratios. @return whether the median ratio is in its bound
bool PrintRatioRow(const std::string& name, const Turns& turns, Bound bound);

}  // namespace cpd::bench
