// Checks for UTF-8 in untrusted text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace cpd::host {

/// @return the length in bytes of the first character of a text; 0 if it is not valid UTF-8
inline size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  if (text.empty()) return 0;
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  // The second byte reveals overlong forms, surrogates, and code points beyond Unicode.
  const unsigned least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < least || byte(1) > most) return 0;
  const auto rest = text.substr(2, length - 2);
  return std::ranges::all_of(rest, [](char c) { return (c & 0xC0) == 0x80; }) ? length : 0;
}

}  // namespace cpd::host
