#pragma once

#include <string>
#include <string_view>

namespace cpd::host {

/// A text as a JSON string, quotes included. Bytes that are no ASCII pass as they are.
std::string JsonString(std::string_view text);

}  // namespace cpd::host
