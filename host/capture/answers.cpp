#include "capture/answers.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "byte_reader.h"
#include "capture/heads.h"
#include "cpd/packet.h"
#include "wire.h"

namespace cpd::host {
namespace {

class Parts {
 public:
  void Add(std::string name, std::string value) {
    parts_.push_back({.name = std::move(name), .value = std::move(value)});
  }
  template <class Number>
  void AddNumber(const std::string& name, Number number) {
    Add(name, std::to_string(number));
  }
  /// @param of  what the names begin with
  void AddAttributes(const std::string& of, const udisk_stat& attributes) {
    const bool is_directory = S_ISDIR(attributes.st_mode);
    Add(of + "mode", fmt::format("{:o}", uint32_t{attributes.st_mode}));
    AddNumber(of + "owner", uint32_t{attributes.st_uid});
    AddNumber(of + "group", uint32_t{attributes.st_gid});
    AddNumber(of + "special device", int64_t{attributes.st_rdev});
    if (is_directory) return;
    AddNumber(of + "size", int64_t{attributes.st_size});
    AddNumber(of + "links", uint64_t{attributes.st_nlink});
  }
  /// The entries by name. The parent of a directory is described where it is listed itself.
  void AddListing(const DirHead& head, std::string_view listing) {
    AddNumber("number of entries", uint32_t{head.entry_count});
    if (listing.size() < head.buf_len) return;  // cut: which entries are missing is not known
    std::map<std::string, std::optional<udisk_stat>> entries;
    ByteReader reader(listing);
    while (const auto entry = reader.Take<udisk_dir_entry>()) {
      auto name = reader.TakeUpTo(entry->name_len);
      if (name.ends_with('\0')) name.remove_suffix(1);
      entries.emplace(name, name == ".." ? std::nullopt : std::optional(entry->attributes));
    }
    for (const auto& [name, attributes] : entries) {
      Add("entry", name);
      if (attributes) AddAttributes(name + ": ", *attributes);
    }
  }
  void AddStatistics(const udisk_statvfs& statistics) {
    AddNumber("block size", uint64_t{statistics.f_bsize});
    AddNumber("fragment size", uint64_t{statistics.f_frsize});
    AddNumber("longest name", uint64_t{statistics.f_namemax});
  }

  std::vector<AnswerPart> Take() { return std::move(parts_); }

 private:
  std::vector<AnswerPart> parts_;
};

void AddFiles(ByteReader* reader, Parts* parts) {
  const auto head = reader->Take<SmallReadHead>();
  for (uint32_t i = 0; head && i < head->count; ++i) {
    const auto file = reader->Take<ReadHead>();
    if (!file) return;
    const std::string path(reader->TakeUpTo(file->path_length));
    parts->AddNumber("length of " + path, uint32_t{file->size});
    parts->Add("data of " + path, std::string(reader->TakeUpTo(file->size)));
  }
}

/// What a user reads of a value: itself, if it is short and printable.
std::optional<std::string> Shown(const std::string& value) {
  constexpr size_t kLongest = 80;
  const bool is_plain = value.size() <= kLongest &&
                        std::ranges::all_of(value, [](char c) { return c >= ' ' && c <= '~'; });
  return is_plain ? std::optional(value) : std::nullopt;
}

std::string Difference(const AnswerPart& before, const AnswerPart& now) {
  const auto name = Shown(now.name).value_or("an entry");
  const auto old_value = Shown(before.value);
  const auto new_value = Shown(now.value);
  const bool is_data = now.name.starts_with("data");
  if (!is_data && old_value && new_value) {
    return fmt::format("{} was {}, is {}", name, *old_value, *new_value);
  }
  const auto [old_end, new_end] = std::ranges::mismatch(before.value, now.value);
  return fmt::format("{} differs at byte {}", name, new_end - now.value.begin());
}

}  // namespace

std::vector<AnswerPart> PartsOf(std::string_view answer) {
  Parts parts;
  ByteReader reader(answer.substr(std::min(CPD_PACKET_HEADER_SIZE, answer.size())));
  switch (HeaderOf(answer).cmd) {
    case kGetFileAttr:
      if (const auto head = reader.Take<FileAttrHead>()) {
        reader.TakeUpTo(head->path_length);
        parts.Add("file", head->attr_length == 0 ? "missing" : "there");
        if (const auto attributes = reader.Take<udisk_stat>()) parts.AddAttributes("", *attributes);
      }
      break;
    case kFileRead:
      if (const auto head = reader.Take<ReadHead>()) {
        reader.TakeUpTo(head->path_length);
        parts.AddNumber("length of the data", uint32_t{head->size});
        parts.Add("data", std::string(reader.TakeRest()));
      }
      break;
    case kSmallFileRead:
      AddFiles(&reader, &parts);
      break;
    case kDirRead:
    case kCheckDir:
      if (const auto head = reader.Take<DirHead>()) {
        reader.TakeUpTo(head->path_length);
        parts.Add("directory", head->buf_len == 0 ? "missing" : "there");
        parts.AddListing(*head, reader.TakeUpTo(head->buf_len));
      }
      break;
    case kGetStatvfs:
      if (const auto head = reader.Take<StatvfsHead>()) {
        reader.TakeUpTo(head->path_length);
        while (const auto record = reader.Take<udisk_statvfs>()) parts.AddStatistics(*record);
      }
      break;
    case kFileCreate:
    case kMakeDir:
      parts.Add("result", ResultOf(answer) >= 0 ? "success" : "failure");
      break;
    default:
      if (const auto result = ResultOf(answer)) parts.AddNumber("result", *result);
      if (HeaderOf(answer).cmd == kFileWrite) {
        const auto head = RecordAt<WriteHead>(answer, CPD_PACKET_HEADER_SIZE);
        parts.AddNumber("size", int32_t{head.size});
      }
      parts.Add("answer", std::string(reader.TakeRest()));
  }
  return parts.Take();
}

std::string DifferenceOf(std::string_view before, std::string_view now) {
  const bool is_cut = HeaderOf(before).packetLen > before.size();
  const auto compared = is_cut ? now.substr(0, before.size()) : now;
  if (before.size() == compared.size() && before.size() >= CPD_PACKET_HEADER_SIZE &&
      before.substr(CPD_PACKET_HEADER_SIZE) == compared.substr(CPD_PACKET_HEADER_SIZE)) {
    return {};
  }
  const auto old_parts = PartsOf(before);
  const auto new_parts = PartsOf(compared);
  for (size_t i = 0; i < std::min(old_parts.size(), new_parts.size()); ++i) {
    if (old_parts[i].name != new_parts[i].name) return "it has other parts";
    if (old_parts[i].value != new_parts[i].value) return Difference(old_parts[i], new_parts[i]);
  }
  return old_parts.size() == new_parts.size() ? "" : "it has other parts";
}

}  // namespace cpd::host
