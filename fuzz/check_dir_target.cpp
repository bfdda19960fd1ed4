// Compares the directory check with a slow and simple one. An input is a mode and then
//   a request whose cached listing holds any bytes,
//   or the entries of two well-formed listings ('L'),
//   or the names in a directory before and between the two passes of UdiskReadDir ('P').
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "finding.h"
#include "jail.h"
#include "operator.h"
#include "steps.h"
#include "support/between_passes.h"
#include "support/fake_host.h"
#include "support/requests.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

using test::DirEntry;

/// The entries of a listing; nullopt when it holds fewer than `count` whole ones.
std::optional<std::vector<DirEntry>> Walk(std::string_view listing, size_t count) {
  std::vector<DirEntry> entries;
  while (entries.size() < count) {
    udisk_dir_entry head{};
    if (listing.size() < sizeof head) return std::nullopt;
    std::memcpy(&head, listing.data(), sizeof head);
    listing.remove_prefix(sizeof head);
    const size_t length = head.name_len;
    if (length == 0 || listing.size() < length || listing[length - 1] != '\0') return std::nullopt;
    entries.push_back({.stat = head.attributes, .name = listing.data()});
    listing.remove_prefix(length);
  }
  return entries;
}

/// Whether each cached entry matches a current one in name, size and second, and no other is left.
bool Same(const std::vector<DirEntry>& cached, const std::vector<DirEntry>& current) {
  if (cached.size() != current.size()) return false;
  size_t matches = 0;
  for (const DirEntry& entry : cached) {
    const size_t before = matches;
    for (const DirEntry& other : current) {
      if (other.name != entry.name) continue;
      if (other.stat.st_size != entry.stat.st_size ||
          other.stat.st_mtim.tv_sec != entry.stat.st_mtim.tv_sec) {
        return false;
      }
      ++matches;
    }
    if (matches == before) return false;
  }
  return matches == cached.size();
}

void MakeFile(const std::string& path, const std::string& content) {
  std::ofstream(path) << content;
  const timespec settled[2] = {{.tv_sec = 1'700'000'000, .tv_nsec = 0},
                               {.tv_sec = 1'700'000'000, .tv_nsec = 0}};
  utimensat(AT_FDCWD, path.c_str(), settled, 0);
}

/// Makes the disk, once: no request of this target changes it.
void MakeDisk() {
  static bool made = false;
  if (made) return;
  mkdir("/DISK", 0755);
  mkdir("/DISK/known", 0755);
  MakeFile("/DISK/known/a.txt", "a");
  MakeFile("/DISK/known/b.txt", "bb");
  MakeFile("/DISK/known/" + std::string(255, 'n'), "");
  mkdir("/DISK/empty", 0755);
  for (const char* directory : {"/DISK/known", "/DISK/empty", "/DISK"}) {
    const timespec settled[2] = {{.tv_sec = 1'700'000'000, .tv_nsec = 0},
                                 {.tv_sec = 1'700'000'000, .tv_nsec = 0}};
    utimensat(AT_FDCWD, directory, settled, 0);
  }
  made = true;
}

std::optional<test::SentPacket> Ask(UDiskOperator* udisk, test::FakeDevice* device,
                                    const test::Request& request) {
  device->TakeSent();
  const uint64_t steps = StepsSoFar();
  udisk->EventHandle(request.Packet());
  ExpectLinear(steps, request.payload.size());
  const std::vector<test::SentPacket> sent = device->TakeSent();
  Expect(sent.size() <= 1, "one answer at most");
  return sent.empty() ? std::nullopt : std::optional(sent.front());
}

void CheckRequest(Input in, UDiskOperator* udisk, test::FakeDevice* device) {
  MakeDisk();
  udisk->SetRootPath("/", "DISK");
  const auto count = in.Take<uint16_t>();
  const std::string path(in.TakeText());
  const std::string cached(in.TakeRest());

  const auto listed = Ask(udisk, device, test::DirReadRequest{.path = path});
  const auto changed = Ask(
      udisk, device, test::CheckDirRequest{.path = path, .cached = cached, .cached_count = count});
  const bool refused = path.find('\0') != std::string::npos;
  Expect(listed.has_value() != refused, "a listing is refused for a NUL in its path only");
  if (refused) {
    Expect(!changed, "a check is refused for a NUL in its path, too");
    return;
  }
  const auto current = test::DirReply::Decode(*listed);
  const auto walked = Walk(cached, count);
  const bool same = walked && Same(*walked, *Walk(current.listing, current.entry_count));
  Expect(changed.has_value() != same, "a check is answered where something changed");
  if (changed) Expect(changed->payload == listed->payload, "the answer is the listing");
}

std::vector<std::string> TakeNames(Input* in) {
  constexpr size_t kMost = 16;
  std::vector<std::string> names;
  const size_t count = in->Take<uint8_t>() % kMost;
  while (names.size() < count) {
    // Each name starts with a different letter, so no two are equal.
    names.push_back(std::string(1, static_cast<char>('a' + names.size())) +
                    std::string(in->Take<uint8_t>() % 255, 'n'));
  }
  return names;
}

/// Lists a directory, then checks it while other files replace those in it.
void CheckBetweenPasses(Input in, UDiskOperator* udisk, test::FakeDevice* device) {
  MakeDisk();
  udisk->SetRootPath("/", "DISK");
  const std::vector<std::string> before = TakeNames(&in);
  const std::vector<std::string> after = TakeNames(&in);
  const std::string directory = "/DISK/changing/";
  mkdir(directory.c_str(), 0755);
  const auto make = [&](const std::string& name) { std::ofstream(directory + name) << name; };
  const auto remove = [&](const std::string& name) { unlink((directory + name).c_str()); };

  std::ranges::for_each(before, make);
  const auto listed = Ask(udisk, device, test::DirReadRequest{.path = "/changing"});
  const auto known = test::DirReply::Decode(*listed);
  {
    const test::BetweenPasses replace([&] {
      std::ranges::for_each(before, remove);
      std::ranges::for_each(after, make);
    });
    const auto changed =
        Ask(udisk, device,
            test::CheckDirRequest{.path = "/changing",
                                  .cached = known.listing,
                                  .cached_count = static_cast<uint16_t>(known.entry_count)});
    Expect(!changed || changed->payload.size() == listed->payload.size(),
           "the listing has the size that the first pass found");
  }
  std::ranges::for_each(before, remove);
  std::ranges::for_each(after, remove);
}

std::vector<DirEntry> TakeEntries(Input* in, size_t count) {
  std::vector<DirEntry> entries;
  while (entries.size() < count) {
    DirEntry& entry = entries.emplace_back();
    entry.name = in->TakeBytes(in->Take<uint8_t>() % 4);
    entry.stat.st_size = in->Take<uint8_t>() % 4;
    entry.stat.st_mtim.tv_sec = in->Take<uint8_t>() % 4;
    entry.stat.st_mtim.tv_nsec = in->Take<uint8_t>();  // must not matter
  }
  return entries;
}

void CompareListings(Input in, UDiskOperator* udisk) {
  const size_t cached_count = in.Take<uint8_t>() % 32;
  const size_t current_count = in.Take<uint8_t>() % 32;
  const std::string cached = test::EncodeEntries(TakeEntries(&in, cached_count));
  const std::string current = test::EncodeEntries(TakeEntries(&in, current_count));
  const uint64_t steps = StepsSoFar();
  const int result =
      udisk->compare_cache(static_cast<int>(cached_count), static_cast<int>(current_count),
                           cached.data(), current.data());
  ExpectLinear(steps, cached.size() + current.size());
  const bool same = Same(*Walk(cached, cached_count), *Walk(current, current_count));
  Expect(result == (same ? 1 : 0), "the result is that of the simple comparison");
}

}  // namespace

void Run(Input in) {
  test::Log().Clear();
  test::FakeDevice device;
  UDiskOperator udisk(&device);
  switch (in.Take<char>()) {
    case 'L':
      return CompareListings(in, &udisk);
    case 'P':
      return CheckBetweenPasses(in, &udisk, &device);
    default:
      return CheckRequest(in, &udisk, &device);
  }
}

}  // namespace cpd::fuzz
