// UTF-8 in texts that anyone may have written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace cpd::host {

/// @return how many bytes the character at the front of a text has; 0 when it is not UTF-8
inline size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  if (text.empty()) return 0;
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  // Longer forms than needed, surrogates, and numbers beyond Unicode show in the second byte.
  const unsigned least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < least || byte(1) > most) return 0;
  const auto rest = text.substr(2, length - 2);
  return std::ranges::all_of(rest, [](char c) { return (c & 0xC0) == 0x80; }) ? length : 0;
}

}  // namespace cpd::host
