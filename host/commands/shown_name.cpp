#include "commands/shown_name.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "module/utf8.h"

namespace cpd::host {
namespace {

/// Splits a name into characters; each byte that is not UTF-8 counts as one.
std::vector<std::string_view> Characters(std::string_view name) {
  std::vector<std::string_view> characters;
  while (!name.empty()) {
    characters.push_back(name.substr(0, std::max<size_t>(1, Utf8Length(name))));
    name.remove_prefix(characters.back().size());
  }
  return characters;
}

bool IsPrintable(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (first < 0x80) return first >= 0x20 && first != 0x7F;
  const bool is_c1_control = character >= "\u0080" && character < "\u00a0";
  const bool is_line_or_paragraph_end = character == "\u2028" || character == "\u2029";
  return Utf8Length(character) != 0 && !is_c1_control && !is_line_or_paragraph_end;
}

/// Whether a shell or the terminal would interpret anything in a name.
bool NeedsQuotes(std::string_view name, const std::vector<std::string_view>& characters) {
  return name.find_first_of(" !\"$&'()*;<=>?[\\^`|") != std::string_view::npos || name[0] == '#' ||
         name[0] == '~' || name == "{" || name == "}" ||
         !std::ranges::all_of(characters, IsPrintable);
}

/// Whether double quotes suffice, because nothing in the name is special between them.
bool FitsDoubleQuotes(std::string_view name, const std::vector<std::string_view>& characters) {
  return name.find_first_of("!\"$&()*;<=>?[\\^`|{}") == std::string_view::npos &&
         name.find_first_of("#~", 1) == std::string_view::npos &&
         std::ranges::all_of(characters, IsPrintable);
}

std::string Escapes(std::string_view character) {
  constexpr std::string_view kLetters = "abtnvfr";  // from 7 on
  std::string out;
  for (const char c : character) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 7 && byte < 7 + kLetters.size()) {
      out += {'\\', kLetters[byte - 7U]};
    } else {
      fmt::format_to(std::back_inserter(out), "\\{:03o}", byte);
    }
  }
  return out;
}

}  // namespace

std::string ShownName(std::string_view name) {
  static const bool is_terminal = isatty(STDOUT_FILENO) != 0;
  return is_terminal ? QuotedForShell(name) : std::string(name);
}

std::string QuotedForShell(std::string_view name) {
  const auto characters = Characters(name);
  if (name.empty() || !NeedsQuotes(name, characters)) return std::string(name);
  if (name.find('\'') != std::string_view::npos && FitsDoubleQuotes(name, characters)) {
    return fmt::format("\"{}\"", name);
  }
  std::string out = "'";
  bool is_escaping = false;  // between $' and its end
  for (const auto character : characters) {
    if (!IsPrintable(character)) {
      if (!is_escaping) out += "'$'";
      is_escaping = true;
      out += Escapes(character);
      continue;
    }
    if (character == "'") {
      out += "'\\''";
    } else {
      if (is_escaping) out += "''";
      out += character;
    }
    is_escaping = false;
  }
  return out += '\'';
}

}  // namespace cpd::host
