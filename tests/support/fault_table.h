// The tables of docs/faults.md. Each row is written down with the test that shows it.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace cpd::test {

/// What a row says of its fault.
struct FaultRow {
  std::string seen;    ///< by the remote side
  std::string logged;  ///< in the log
  std::string lost;    ///< what the remote side believes it has, but does not have
};

/// Expects the document to have the fault's row, word for word.
inline void ExpectFaultRow(const std::string& fault, const FaultRow& row) {
  std::ostringstream document;
  document << std::ifstream(FAULTS_DOCUMENT).rdbuf();
  const std::string line =
      "\n| " + fault + " | " + row.seen + " | " + row.logged + " | " + row.lost + " |\n";
  EXPECT_NE(document.str().find(line), std::string::npos) << line;
}

}  // namespace cpd::test
