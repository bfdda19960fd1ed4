// The table of ratios between the driver and the machine's limit.
#pragma once

#include <string>

#include "sample_disk.h"

namespace cpd::bench {

/// Measures and prints the rows whose name contains `filter`, as a Markdown table. Both sides of a
/// row take turns, and the median of the ratios of so many turns counts: foreign load then hits
/// both.
/// @return whether every ratio is within its bound
bool PrintRatios(SampleDisk& disk, int turns, const std::string& filter);

}  // namespace cpd::bench
