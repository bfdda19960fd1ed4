// The table of ratios between the driver and the machine's limit.
#pragma once

#include <string>

#include "sample_disk.h"

namespace cpd::bench {

/// Measures and prints the rows whose name contains `filter`, as a Markdown table. The two sides of
/// a row take turns, so that load from other programs affects both. The median of the ratios from
/// `turns` turns is compared with the bound.
/// @return whether every ratio is within its bound
bool PrintRatios(SampleDisk& disk, int turns, const std::string& filter);

}  // namespace cpd::bench
