#pragma once

#include <string>
#include <string_view>

namespace cpd::host {

/// A text as a JSON string, quotes included. A byte that is not UTF-8 becomes U+FFFD.
std::string JsonString(std::string_view text);

}  // namespace cpd::host
