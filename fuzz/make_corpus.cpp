// Writes the first inputs of each target: make_corpus DIRECTORY
// With --check, only checks that DIRECTORY has them: make_corpus --check DIRECTORY
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "capture/pcapng.h"
#include "line/stream.h"
#include "settings.h"
#include "support/requests.h"

namespace {

namespace fs = std::filesystem;
using namespace cpd;        // NOLINT(google-build-using-namespace)
using namespace cpd::test;  // NOLINT(google-build-using-namespace)

/// A text, preceded by its length.
std::string Text(const std::string& text) {
  return BytesOf(static_cast<uint16_t>(text.size())) + text;
}

enum class Mode { kWrite, kCheck };

class Corpus {
 public:
  Corpus(Mode mode, const fs::path& directory) : mode_(mode), directory_(directory) {
    if (mode == Mode::kWrite) fs::create_directories(directory);
  }
  void Add(const std::string& name, const std::string& input) const {
    const fs::path path = directory_ / name;
    if (mode_ == Mode::kCheck) {
      std::ifstream file(path, std::ios::binary);
      const std::string there{std::istreambuf_iterator<char>(file), {}};
      if (!file || there != input) throw std::runtime_error(path.string() + " is missing or old");
      return;
    }
    std::ofstream file(path, std::ios::binary);
    if (!(file << input << std::flush)) throw std::runtime_error("cannot write " + path.string());
  }

 private:
  Mode mode_;
  fs::path directory_;
};

/// A step that delivers a request.
std::string Step(const Request& request) {
  return "R" + BytesOf(request.cmd) + Text(request.payload);
}

/// Repeats a request, each time with another word of its heads at a limit of its range, including
/// the head of a batch's first piece. The disk is mounted again after each request.
std::string Extremes(const Request& request) {
  constexpr size_t kHeads = 48;
  std::string steps;
  const auto add = [&](size_t at, auto value) {
    if (at + sizeof value > request.payload.size()) return;
    Request extreme = request;
    extreme.payload = Patched(request.payload, at, value);
    steps += Step(extreme) + "M";
  };
  for (size_t at = 0; at < kHeads; at += 2) {
    add(at, uint32_t{0xffffffff});
    add(at, std::numeric_limits<int32_t>::max());
    add(at, std::numeric_limits<int64_t>::max());
  }
  return steps;
}

/// A step that delivers a request in a buffer that is `more` bytes longer than its message.
std::string StepOfCapacity(const Request& request, int more) {
  return "V" + BytesOf(request.cmd) + Text(request.payload) + BytesOf(static_cast<int16_t>(more));
}

/// A step that delivers a long request: a beginning, then a text `times` times.
std::string LongStep(uint16_t cmd, const std::string& begin, const std::string& text,
                     uint32_t times) {
  return "Z" + BytesOf(cmd) + Text(begin) + Text(text) + BytesOf(times);
}

/// Very long requests, made of many small parts.
std::vector<std::pair<std::string, std::string>> LongSteps() {
  constexpr uint32_t kMany = 200'000;
  constexpr uint16_t kMost = 0xffff;
  const auto record =
      BytesOf(ReadHead{.offset = 0, .unread_8 = 0, .size = 8, .path_length = 2, .unread_20 = 0}) +
      "/a";
  const auto piece = BytesOf(WritePieceHead{.offset = 0, .length = 1}) + "x";
  const auto count = [](const std::string& part) {
    return static_cast<uint32_t>(kMany / part.size());
  };
  const DirEntry same{.stat = {}, .name = "a.txt"};
  std::string entry = EncodeEntries({same});
  entry.pop_back();
  const auto create = [](uint32_t length) {
    return BytesOf(CreateHead{.path_length = length, .flags = 0, .mode = 0644, .result = 0});
  };
  const WriteHead batch{.offset = 0,
                        .size = static_cast<int32_t>(count(piece) * piece.size()),
                        .unread_12 = 0,
                        .single = 0,
                        .path_length = sizeof kKnownFile - 1,
                        .marker_a = 0,
                        .marker_b = 0};
  DirHead check{};
  check.buf_len = static_cast<uint32_t>(count(entry) * entry.size());
  check.path_length = sizeof kKnownDir - 1;
  check.entry_count = static_cast<uint16_t>(count(entry));
  return {
      {"slashes-103", LongStep(kFileCreate, create(kMany), "/", kMany)},
      {"slashes-103-below-PATH_MAX", LongStep(kFileCreate, create(4000), "/", 4000)},
      {"directories-103", LongStep(kFileCreate, create(4000), "/d", 2000)},
      {"slashes-114",
       LongStep(kMakeDir, BytesOf(MakeDirHead{.result = 0, .path_length = kMost, .mode = 0755}),
                "/", kMost)},
      {"ups-102",
       LongStep(kGetFileAttr, BytesOf(FileAttrHead{.path_length = kMost, .attr_length = 0}), "/..",
                kMost / 3 + 1)},
      {"records-123", LongStep(kSmallFileRead, BytesOf(SmallReadHead{.count = count(record)}),
                               record, count(record))},
      {"pieces-106", LongStep(kFileWrite, BytesOf(batch) + kKnownFile, piece, count(piece))},
      {"entries-121", LongStep(kCheckDir, BytesOf(check) + kKnownDir, entry, count(entry))},
  };
}

void MakeRequests(const Corpus& corpus) {
  const std::string plain(1, '\0');
  const std::string token_bucket = BytesOf(uint8_t{fuzz::kTokenBucket | fuzz::kPathFilter});
  const std::string confined = BytesOf(uint8_t{fuzz::kConfined});
  std::string sequence = plain;
  std::string cut = plain;
  std::string with_slack = plain;
  std::string without_tail = plain;
  std::set<std::string> files;
  for (const NamedRequest& named : OneRequestPerCommand()) {
    const Request& request = named.request;
    std::string file = std::to_string(request.cmd) + "-" + named.name;
    if (!files.insert(file).second) file += "-2";
    corpus.Add(file, plain + Step(request));
    corpus.Add(file + "-extremes", plain + Extremes(request));
    sequence += Step(request) + "M";
    const auto claim = static_cast<uint32_t>(16 + request.payload.size() / 2);
    cut += "C" + BytesOf(request.cmd) + Text(request.payload.substr(0, claim - 16)) +
           BytesOf(claim) + "M";
    with_slack += StepOfCapacity(request, 4096) + "M";
    without_tail += StepOfCapacity(request, -1) + "M";
  }
  corpus.Add("every-request", sequence);
  corpus.Add("every-request-confined", confined + sequence.substr(1));
  corpus.Add("not-named", BytesOf(uint8_t{fuzz::kConfined | fuzz::kNotNamed}) +
                              Step(ReadRequest{.path = "other/disk"}) +
                              Step(WriteRequest{.path = "other/disk", .data = "written"}));
  corpus.Add("every-request-cut", cut);
  corpus.Add("every-request-in-a-larger-buffer", with_slack);
  corpus.Add("every-request-in-a-smaller-buffer", without_tail);
  for (const auto& [name, step] : LongSteps()) {
    corpus.Add("long-" + name, plain + step);
    corpus.Add("long-" + name + "-confined", confined + step);
  }

  const Request read = ReadRequest{.path = "/big.doc", .size = 200'000};
  const std::string paced =
      "B" + BytesOf(uint32_t{2000}) + Step(read) + "T" + BytesOf(int16_t{300}) + "D\x02";
  corpus.Add("paced-reads", plain + paced + paced);
  corpus.Add("paced-reads-token-bucket", token_bucket + paced + paced);

  int number = 0;
  for (const char* way : {"/../home/secret", "/out/secret", "/known/../../home/secret"}) {
    const Request outside = ReadRequest{.path = way};
    const Request link = LinkRequest{.path = way, .new_path = "/taken.txt"};
    const std::string steps = Step(outside) + Step(link);
    corpus.Add("way-out-" + std::to_string(++number), plain + steps);
    corpus.Add("way-out-confined-" + std::to_string(number), confined + steps);
  }

  std::string image = read.Bytes();
  corpus.Add("image", plain + "P" + Text(image));
  image[12] = 1;  // bigEndian
  corpus.Add("image-as-bus-event", plain + "E" + Text(image));
  corpus.Add("image-big-endian", plain + "P" + Text(image));
}

void MakeDriver(const Corpus& corpus) {
  const std::string plain(1, '\0');
  const std::string confined = BytesOf(uint8_t{fuzz::kConfined});
  std::string requests;
  std::string settled;
  for (const NamedRequest& named : OneRequestPerCommand()) {
    requests += Step(named.request);
    settled += Step(named.request) + "S";
  }
  const std::string bandwidth = "B" + BytesOf(uint32_t{2000});
  const Request read = ReadRequest{.path = "/big.doc", .size = 200'000};
  corpus.Add("every-request", plain + requests + "S");
  corpus.Add("every-request-settled", plain + settled);
  corpus.Add("every-request-confined", confined + requests + "S");
  corpus.Add("closed-with-requests-left", plain + requests + "X");
  corpus.Add("requests-and-bus-events-after-close", plain + "X" + requests + bandwidth + "OXS");
  corpus.Add("operator-outlives-close", plain + "O" + requests + "SXO");
  corpus.Add("paced-read-interrupted",
             BytesOf(uint8_t{fuzz::kTokenBucket}) + bandwidth + Step(read) + Step(read) + "X");
  corpus.Add("policy", plain + "Y" + Text(std::string(300, 'p')) + requests + "Y" + Text("") + "S");
  corpus.Add("device-gone", plain + Step(read) + "D" + BytesOf(uint8_t{1}) + requests + "S");
}

void MakePackets(const Corpus& corpus) {
  const Request request = ReadRequest{.path = kKnownFile};
  const std::string image = Text(request.Bytes());
  const std::string tail = "A" + Text("payload") + "W" + BytesOf(uint32_t{7}) + "RRSC";
  corpus.Add("received", std::string(1, '\0') + image + tail);
  corpus.Add("copied", "\x01" + image + tail);
  corpus.Add("made", std::string(1, '\0') + Text("") + "N" + BytesOf(uint16_t{64}) + "H" + "\x05" +
                         BytesOf(uint16_t{105}) + BytesOf(uint32_t{77}) + tail + "Z" +
                         BytesOf(uint16_t{0xffff}));
  std::string big_endian = request.Bytes();
  big_endian[12] = 1;
  corpus.Add("big-endian", std::string(1, '\0') + Text(big_endian) + "RRS" + "L" +
                               BytesOf(uint32_t{0xffffffff}) + tail + "E" + tail);
}

void MakeParameters(const Corpus& corpus) {
  corpus.Add("good",
             R"({"letter": "/media/me/", "label": "STICK", "name": "Stick", "readOnly": 1})");
  corpus.Add("types", R"({"letter": [1], "label": null, "name": 1e99, "readOnly": "yes"})");
  corpus.Add("escapes", R"({"letter": "\u0000\ud83d\ude00", "label": "\\\"", "name": "a\u0000b",)"
                        R"( "readOnly": -1} // end)");
  for (const char* number : {"1e99", "4294967296", "-2147483649", "0.5", "true", "[]"}) {
    corpus.Add(
        std::string("read-only-") + number,
        std::string(R"({"letter": "a", "label": "b", "name": "c", "readOnly": )") + number + "}");
  }
  corpus.Add("long", R"({"letter": ")" + std::string(300, 'l') + R"(", "label": "b", "name": ")" +
                         std::string(300, 'n') + R"("})");
  corpus.Add("deep", std::string(1100, '['));
}

void MakeProbing(const Corpus& corpus) {
  const std::string end = "\x1d";
  const std::string partitions =
      "major minor  #blocks  name\n\n   8        0  500107608 sda\n   8       17   15727616 sdb1\n";
  corpus.Add("good", " sdb1" + end +
                         "/dev/sda1: UUID=\"1\" TYPE=\"ext4\"\n"
                         "/dev/sdb1: LABEL=\"DATA\" UUID=\"12-34\" TYPE=\"ntfs\" PARTUUID=\"5\"\n"
                         "/dev/sdb2: UUID=\"56-78\" BLOCK_SIZE=\"512\" TYPE=\"vfat\"\n" +
                         end + partitions + end + "1\n");
  corpus.Add("hostile", " $(sdb)" + end + "/dev/sdb`a`:LABEL=\"$(a)'\" TYPE=\"'b;\n" + end +
                            "8 1 1 sd';\n" + end + "0e\n");
  corpus.Add("no-commands", "xsdb1" + end + end + end);
}

void MakeCheckDir(const Corpus& corpus) {
  const auto entry = [](const std::string& name, int64_t size) {
    DirEntry made{.stat = {}, .name = name};
    made.stat.st_size = size;
    made.stat.st_mtim.tv_sec = 1'700'000'000;
    return made;
  };
  const auto check = [](const std::string& path, const std::vector<DirEntry>& cached) {
    return "R" + BytesOf(static_cast<uint16_t>(cached.size())) + Text(path) + EncodeEntries(cached);
  };
  corpus.Add("unchanged", check("/known", {entry(".", 100), entry("..", 80), entry("a.txt", 1),
                                           entry("b.txt", 2), entry(std::string(255, 'n'), 0)}));
  corpus.Add("empty", check("/empty", {entry(".", 40), entry("..", 80)}));
  corpus.Add("missing", check("/missing", {}));
  corpus.Add("nul", check(std::string("/known\0a", 8), {}));
  const std::string entries(
      "\x01"
      "a\x01\x02\x00\x02"
      "bc\x02\x03\x00",
      11);
  corpus.Add("listings", "L\x02\x02" + entries + entries);
  // Eight files, first with names of one byte, then of 250.
  constexpr char kFiles = 8;
  corpus.Add("replaced",
             'P' + (kFiles + std::string(kFiles, '\0')) + (kFiles + std::string(kFiles, '\xf9')));
}

std::string HelloOf(host::Role role) {
  host::Hello hello{};
  hello.magic = host::kHelloMagic;
  hello.version = host::kStreamVersion;
  hello.role = role;
  hello.largest = host::kLargestPacket;
  hello.window = host::kDefaultWindow;
  return BytesOf(hello);
}

std::string ControlOf(host::Control kind, uint64_t value, const std::string& text = "") {
  return BytesOf(host::ControlHead{.magic = host::kControlMagic,
                                   .kind = kind,
                                   .length = static_cast<uint16_t>(text.size()),
                                   .reserved = 0,
                                   .value = value}) +
         text;
}

void MakeStreams(const Corpus& corpus) {
  const std::string whole = Text("");
  const std::string small_pieces = Text(std::string("\0\x01\x0e\x0f\x10\xff", 6));
  std::string requests = HelloOf(host::Role::kRemote) + ControlOf(host::Control::kPing, 42);
  for (const NamedRequest& named : OneRequestPerCommand()) requests += named.request.Bytes();
  requests += ControlOf(host::Control::kBye, 0, "the user ended it");
  corpus.Add("requests", whole + requests);
  corpus.Add("requests-in-pieces", small_pieces + requests);

  const Request announcement{
      .cmd = kMountRemote,
      .payload = BytesOf(MountHead{.name_length = 4}) + "DISK" + std::string(2, '\0'),
      .request_id = 1234};
  const std::string disk = HelloOf(host::Role::kDisk) + announcement.Bytes() +
                           ControlOf(host::Control::kTaken, 4 << 20) +
                           ControlOf(host::Control::kPong, 42);
  corpus.Add("announcement", whole + disk);
  corpus.Add("announcement-in-pieces", small_pieces + disk);
  corpus.Add("refusal", whole + HelloOf(host::Role::kDisk) +
                            ControlOf(host::Control::kBye, 1, "no such disk"));
  corpus.Add("no-hello", whole + "sh: 1: cpd-host: not found\n");
  corpus.Add("across-the-buffer",
             whole + HelloOf(host::Role::kRemote) +
                 ControlOf(host::Control::kPong, 1, std::string(4000, 'p')) +
                 Request{.cmd = kFileWrite, .payload = std::string(61'400, 'w')}.Bytes() +
                 ControlOf(host::Control::kBye, 1, std::string(4096, 'b')));
  Request claim{.cmd = kFileRead};
  for (const uint32_t length : {0U, 15U, 2U << 20, (2U << 20) + 1, 0xffffffffU}) {
    corpus.Add("claim-" + std::to_string(length),
               whole + HelloOf(host::Role::kRemote) +
                   Patched(claim.Bytes(), offsetof(CpdPacketHeader, packetLen), length));
  }
  corpus.Add("big-endian",
             whole + HelloOf(host::Role::kRemote) +
                 Patched(claim.Bytes(), offsetof(CpdPacketHeader, bigEndian), uint8_t{1}));
  corpus.Add("small-reads-of-4-GiB",
             whole + HelloOf(host::Role::kRemote) +
                 Request{.cmd = kSmallFileRead,
                         .payload = BytesOf(SmallReadHead{.count = 0xffffffff}) +
                                    BytesOf(ReadHead{.offset = 0,
                                                     .unread_8 = 0,
                                                     .size = 0xffffffff,
                                                     .path_length = 0xffffffff,
                                                     .unread_20 = 0})}
                     .Bytes());
}

/// The blocks of a packet. All packets have the same time, so that the corpus never changes.
std::string Recorded(const std::string& bytes, host::Way way, uint64_t missing = 0) {
  return host::PacketBlocks({.time = 1'700'000'000'123'456'789,
                             .way = way,
                             .bytes = bytes,
                             .original = static_cast<uint32_t>(bytes.size()),
                             .missing = missing});
}

void MakeCaptures(const Corpus& corpus) {
  using host::Way;
  const auto section = host::SectionStart("disk /media/me/STICK", "Stick");
  std::string requests = section;
  for (const NamedRequest& named : OneRequestPerCommand()) {
    requests += Recorded(named.request.Bytes(), Way::kToModule);
    // The answer is the request with bytes after it, which may be read as data or attributes.
    Request answer = named.request;
    answer.payload += std::string(250, '\x02');
    requests += Recorded(answer.Bytes(), Way::kFromModule);
  }
  corpus.Add("every-request", requests);
  corpus.Add("two-sections", requests + requests);
  const Request listing = CheckDirRequest{
      .path = kKnownDir,
      .cached = EncodeEntries({{.stat = {}, .name = "."}, {.stat = {}, .name = "a.txt"}}),
      .cached_count = 2};
  corpus.Add("listings", section + Recorded(listing.Bytes(), Way::kToModule) +
                             Recorded(listing.Bytes(), Way::kFromModule));
  const Request read{.cmd = kFileRead, .payload = std::string(host::kLongestInPacketBlock, 'r')};
  const auto rest = section + Recorded(read.Bytes(), Way::kFromModule);
  corpus.Add("rest", rest);
  corpus.Add("rest-cut", rest.substr(0, rest.size() - 8));
  corpus.Add("missing", section + Recorded(listing.Bytes(), Way::kToModule, 7));
  corpus.Add("no-section", Recorded(listing.Bytes(), Way::kToModule));
  corpus.Add("long-block", section + BytesOf(uint32_t{6}) + BytesOf(uint32_t{16 << 20}));
}

}  // namespace

int main(int argc, char** argv) {
  const bool check = argc == 3 && std::string_view(argv[1]) == "--check";
  if (argc != 2 && !check) {
    return std::fprintf(stderr, "usage: make_corpus [--check] DIRECTORY\n"), 2;
  }
  try {
    const Mode mode = check ? Mode::kCheck : Mode::kWrite;
    const fs::path root = argv[argc - 1];
    MakeCheckDir({mode, root / "check_dir"});
    MakeDriver({mode, root / "driver"});
    MakePackets({mode, root / "packet"});
    MakeParameters({mode, root / "parameters"});
    MakeProbing({mode, root / "probing"});
    MakeRequests({mode, root / "requests"});
    MakeStreams({mode, root / "stream"});
    MakeCaptures({mode, root / "capture"});
  } catch (const std::exception& error) {
    return std::fprintf(stderr, "make_corpus: %s\n", error.what()), 1;
  }
  return 0;
}
