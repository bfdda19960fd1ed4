#include "module/json.h"

#include <fmt/format.h>

#include <iterator>

#include "module/utf8.h"

namespace cpd::host {

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  while (!text.empty()) {
    const size_t length = Utf8Length(text);
    const char first = text.front();
    if (length == 0) {
      out += "\ufffd";
    } else if (first == '"' || first == '\\') {
      out += '\\';
      out += first;
    } else if (static_cast<unsigned char>(first) < 0x20) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(first));
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out += '"';
}

}  // namespace cpd::host
