// Compares the answers to one request on two occasions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cpd::host {

/// A part of an answer, such as a file's size.
struct AnswerPart {
  std::string name;
  std::string value;
};

/// What must be the same in two answers to one request on equal disks: everything except times,
/// inodes, devices, the blocks of files, room on the disk and its flags, the size and links of
/// directories, the order of a listing, the number of a descriptor, and where the disk is mounted.
/// @param answer  a packet's bytes. Its lengths are not trusted: what was cut has no part, or a
///                part with the bytes that are there
std::vector<AnswerPart> PartsOf(std::string_view answer);

/// How an answer differs from an earlier one to the same request, in words fit for a terminal.
/// @param before  may be cut; then what is missing is not compared, except its length
/// @return empty if they do not differ
std::string DifferenceOf(std::string_view before, std::string_view now);

}  // namespace cpd::host
