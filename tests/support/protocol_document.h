// Reads docs/protocol.md: its tables and its examples.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/expectations.h"

namespace cpd::test {

/// A heading and the lines under it.
struct Section {
  std::string heading;
  Texts lines;

  [[nodiscard]] bool IsCommand() const {
    return std::isdigit(static_cast<unsigned char>(heading.front())) != 0;
  }
  [[nodiscard]] uint16_t Code() const { return static_cast<uint16_t>(std::stoi(heading)); }
};

/// The sections of one chapter of docs/protocol.md; `## ` begins a section, `# ` a chapter.
inline std::vector<Section> ReadSections(const std::string& chapter) {
  std::ifstream document(PROTOCOL_DOCUMENT);
  if (!document) throw std::runtime_error("cannot read " PROTOCOL_DOCUMENT);
  std::vector<Section> sections;
  bool is_there = false;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("# ")) {
      is_there = line.substr(2) == chapter;
    } else if (!is_there) {
      continue;
    } else if (line.starts_with("## ")) {
      sections.push_back({.heading = line.substr(3), .lines = {}});
    } else if (!sections.empty()) {
      sections.back().lines.push_back(line);
    }
  }
  return sections;
}

/// The section whose heading begins like this.
inline const Section& Find(const std::vector<Section>& sections,
                           const std::string& begin_of_heading) {
  const auto found = std::ranges::find_if(sections, [&](const Section& section) {
    return section.heading.starts_with(begin_of_heading);
  });
  if (found == sections.end()) throw std::runtime_error("no heading " + begin_of_heading);
  return *found;
}

/// The cells of a table row.
inline Texts Cells(const std::string& row) {
  Texts cells;
  size_t begin = 2;
  for (size_t bar = row.find(" |", 1); bar != row.npos; bar = row.find(" |", begin - 1)) {
    cells.push_back(row.substr(begin, std::max(bar, begin) - begin));
    begin = bar + 3;
  }
  return cells;
}

inline std::string WithoutTicks(const std::string& cell) { return cell.substr(1, cell.size() - 2); }

// ---- Examples ----

using Bytes = std::vector<std::optional<uint8_t>>;  // empty: any byte

struct Exchange {
  Bytes request;
  bool silence = false;
  Bytes reply;
};

/// `2e` or `..`, alone or repeated as in `2e*8`.
inline Bytes ParseWord(const std::string& word) {
  const std::string byte = word.substr(0, 2);
  const std::string times = word.substr(byte.size());
  const bool any = byte == "..";
  const bool hex = byte.size() == 2 && byte.find_first_not_of("0123456789abcdef") == byte.npos;
  if ((!any && !hex) || (!times.empty() && times[0] != '*')) {
    throw std::runtime_error("not a byte: " + word);
  }
  std::optional<uint8_t> value;
  if (hex) value = static_cast<uint8_t>(std::stoi(byte, nullptr, 16));
  return Bytes(times.empty() ? 1 : std::stoul(times.substr(1)), value);
}

/// The bytes after a line's marker. A bar and a remark may follow them.
inline Bytes ParseBytes(const std::string& line) {
  const size_t bar = std::min(line.find('|'), line.size());
  std::istringstream words(line.substr(1, bar - 1));
  Bytes bytes;
  for (std::string word; words >> word;) {
    const Bytes more = ParseWord(word);
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  if (line.substr(bar).starts_with("| \"") && line.back() == '"') {
    const std::string text = line.substr(bar + 3, line.size() - bar - 4);
    if (bytes != Bytes(text.begin(), text.end())) {
      throw std::runtime_error("bytes and text differ: " + line);
    }
  }
  return bytes;
}

/// Adjacent lines of one direction are one message. An empty line ends an exchange.
inline std::vector<Exchange> ParseExample(const Section& section) {
  std::vector<Exchange> exchanges;
  bool in_code = false;
  bool begins = true;
  for (const std::string& line : section.lines) {
    if (line == "```") in_code = !in_code;
    if (!in_code) continue;
    if (line.empty() || line == "```") {
      begins = true;
      continue;
    }
    if (std::exchange(begins, false)) exchanges.emplace_back();
    Exchange& exchange = exchanges.back();
    if (line == "< (silence)") {
      exchange.silence = true;
    } else {
      const Bytes bytes = ParseBytes(line);
      Bytes& message = line.front() == '>' ? exchange.request : exchange.reply;
      message.insert(message.end(), bytes.begin(), bytes.end());
    }
  }
  return exchanges;
}

/// The bytes as a text. None of them may be left open.
inline std::string Given(const Bytes& bytes) {
  std::string given;
  for (const auto byte : bytes) given += static_cast<char>(byte.value());
  return given;
}

inline std::string ToHex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto value = static_cast<uint8_t>(byte);
    hex += {kDigits[value >> 4], kDigits[value & 15], ' '};
  }
  return hex;
}

inline void ExpectBytes(const Bytes& expected, const std::string& actual) {
  EXPECT_EQ(expected.size(), actual.size());
  const bool same = std::equal(expected.begin(), expected.end(), actual.begin(), actual.end(),
                               [](std::optional<uint8_t> byte, char sent) {
                                 return !byte || *byte == static_cast<uint8_t>(sent);
                               });
  EXPECT_TRUE(same) << "these bytes were sent: " << ToHex(actual);
}

/// Expects each table of fields to have no gap.
inline void ExpectFieldsWithoutGaps(const std::vector<Section>& sections) {
  for (const Section& section : sections) {
    constexpr int kNone = -1;
    int next = kNone;  // where a field must begin; kNone outside tables of fields
    for (const std::string& line : section.lines) {
      const bool head = line.starts_with("| offset |");
      if (!line.starts_with("|")) next = kNone;
      if (head) next = 0;
      if (next == kNone || head || line.starts_with("|---")) continue;
      const Texts row = Cells(line);
      ASSERT_GE(row.size(), 2U) << line;
      EXPECT_EQ(std::stoi(row[0]), next) << section.heading << ": " << line;
      const std::string& width = row[1];
      if (width.starts_with("u") || width.starts_with("s")) {
        next += std::stoi(width.substr(1)) / 8;
      } else {
        ASSERT_TRUE(width.ends_with(" bytes")) << section.heading << ": " << line;
        if (std::isdigit(static_cast<unsigned char>(width[0])) != 0) next += std::stoi(width);
      }
    }
  }
}

}  // namespace cpd::test
