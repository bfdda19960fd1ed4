// Whole sequences of requests, as a hostile remote side may send them, with bus events and a disk
// that comes and goes in between. An input is a byte of settings, then letters, each a step with
// its arguments; other bytes mean nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "finding.h"
#include "jail.h"
#include "operator.h"
#include "settings.h"
#include "support/fake_host.h"
#include "support/fake_user.h"
#include "support/requests.h"
#include "support/virtual_clock.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

using test::Request;
using test::SentPacket;

constexpr const char* kLabel = "DISK";

void MakeFile(const std::string& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// What no answer may hold while paths are confined.
constexpr const char* kSecret = "beside the disk, not on it";

/// A disk with some of everything, and a file beside it.
void MakeDisk() {
  EmptyJail();
  mkdir("/home", 0755);
  MakeFile("/home/secret", kSecret);
  mkdir("/media", 0755);
  mkdir("/media/other", 0755);
  MakeFile("/media/other/disk", kSecret);
  mkdir("/dev", 0755);
  MakeFile("/dev/urandom", "not random at all");  // where trace ids come from
  mkdir("/DISK", 0755);
  mkdir("/DISK/known", 0755);
  MakeFile("/DISK/known.txt", "known content");
  MakeFile("/DISK/known/a.txt", "");
  MakeFile("/DISK/big.doc", "");
  Expect(truncate("/DISK/big.doc", 300'000) == 0, "the disk takes a sparse file");
  Expect(mkfifo("/DISK/fifo", 0644) == 0, "the disk takes a FIFO");
  Expect(symlink("/home", "/DISK/out") == 0 && symlink("loop", "/DISK/loop") == 0,
         "the disk takes links");
}

/// A text that differs once something beside the disk was changed, the disk's own entry included.
std::string StateBeside() {
  std::string state;
  for (const char* path : {"/", "/home", "/home/secret", "/media", "/media/other",
                           "/media/other/disk", "/dev", "/dev/urandom"}) {
    struct stat st {};
    if (lstat(path, &st) == 0) {
      state += test::BytesOf(st.st_ino) + test::BytesOf(st.st_ctim) + test::BytesOf(st.st_size);
    }
  }
  return state;
}

/// Whether a command may leave the disk another than it was. No default: the compiler names a new
/// command that is missing here.
bool Changes(Command cmd) {
  switch (cmd) {
    case kMountRemote:
    case kFileCreate:
    case kFileWrite:
    case kFileTruncate:
    case kFileChmod:
    case kFileChown:
    case kMakeDir:
    case kRemoveDir:
    case kSetLink:
    case kSetUnlink:
    case kSetRename:
      return true;
    case kUmountRemote:
    case kGetFileAttr:
    case kFileOpen:
    case kFileRead:
    case kDirRead:
    case kGetXattr:
    case kFileFsync:
    case kGetStatvfs:
    case kFileFlush:
    case kFileRelease:
    case kCheckDir:
    case kSmallFileNotice:
    case kSmallFileRead:
    case kMountResponse:
    case kBusReadBandwidth:
      return false;
  }
  return false;  // no command
}

/// How to check a command's reply; null where it has none of its own.
auto ReplyCheck(uint16_t cmd) {
  static const std::vector<test::NamedRequest> good = test::OneRequestPerCommand();
  const auto found = std::ranges::find(
      good, cmd, [](const test::NamedRequest& named) { return named.request.cmd; });
  return found != good.end() ? found->check_reply : nullptr;
}

/// Of this thread, which has a table of its own.
auto OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

/// An operator and its host, on the disk.
class Session {
 public:
  explicit Session(uint8_t settings) : confined_((settings & kConfined) != 0) {
    setenv("TESSEL_CPD_CLIENT_CONFINE", confined_ ? "1" : "0", 1);
    setenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", (settings & kTokenBucket) != 0 ? "0" : "1", 1);
    setenv("TESSEL_CPD_CLIENT_FORCE_BW", (settings & kForcedBandwidth) != 0 ? "8000" : "0", 1);
    if ((settings & kPathFilter) != 0) {
      device_.base().SetFilter(std::make_shared<test::FakeFilter>(
          [](const std::string& path) { return path.size() % 2 == 0; }));
    }
    if ((settings & kDeafHost) != 0) device_.SetSendResult(-1);
    udisk_ = std::make_unique<UDiskOperator>(&device_);
    if ((settings & kNotNamed) == 0) Mount();
  }

  void Mount() { udisk_->SetRootPath("/", kLabel); }
  void PassTime(int64_t ms) { clock_.Advance(ms); }
  void DropDevice(int more) { device_.DropBase(more); }
  void Announce(const std::shared_ptr<CpdPacket>& event) { udisk_->BusEventHandle(event); }

  /// Delivers a packet and checks what comes back. @return whether the disk may have changed
  bool Deliver(std::unique_ptr<CpdPacket> packet) {
    const CpdPacketHeader asked = *packet->header;
    const std::string before = confined_ ? StateBeside() : "";
    udisk_->EventHandle(std::move(packet));
    const std::vector<SentPacket> sent = device_.TakeSent();
    Expect(sent.size() <= 1, "one answer at most");
    if (!sent.empty()) Check(asked, sent.front());
    if (confined_) {
      Expect(StateBeside() == before, "a confined request changes nothing beside the disk");
      Expect(sent.empty() || sent.front().payload.find(kSecret) == std::string::npos,
             "a confined request reads nothing beside the disk");
    }
    return Changes(static_cast<Command>(asked.cmd));
  }

  void ExpectToServe() {
    Mount();
    device_.TakeSent();
    udisk_->EventHandle(Request(test::AttrRequest{.path = "/"}).Packet());
    Expect(device_.Sent().size() == 1, "the next good request is answered");
  }

 private:
  static void Check(const CpdPacketHeader& asked, const SentPacket& reply) {
    Expect(reply.cmd == asked.cmd && reply.request_id == asked.requestId &&
               reply.dev_id == asked.devId,
           "an answer is addressed like its request");
    Expect(reply.packet_len <= reply.capacity, "an answer lies in its buffer");
    if (const auto check = ReplyCheck(reply.cmd)) check(reply);
    if (reply.cmd == kFileCreate) CloseCreated(reply);
  }

  /// A file that came with its directories leaves a descriptor open.
  static void CloseCreated(const SentPacket& reply) {
    const int fd = test::CreateRequest::Reply::Decode(reply).result();
    if (fd >= 0) close(fd);
  }

  const bool confined_;
  test::VirtualClock clock_;
  test::FakeUser user_{1000, "/home"};
  test::FakeDevice device_;
  std::unique_ptr<UDiskOperator> udisk_;
};

/// A packet of an image; null where that is none.
std::unique_ptr<CpdPacket> Parsed(std::string_view image) {
  std::string copy(image);
  auto packet = std::make_unique<CpdPacket>();
  const int result =
      packet->Parse(reinterpret_cast<uint8_t*>(copy.data()), static_cast<int>(copy.size()), true);
  return result == 0 ? std::move(packet) : nullptr;
}

/// @return whether the disk may have changed
bool Step(Session* session, Input* in) {
  switch (in->Take<char>()) {
    case 'R': {  // a request
      const auto cmd = in->Take<uint16_t>();
      return session->Deliver(Request{.cmd = cmd, .payload = std::string(in->TakeText())}.Packet());
    }
    case 'C': {  // one whose packetLen says anything
      const auto cmd = in->Take<uint16_t>();
      auto packet = Request{.cmd = cmd, .payload = std::string(in->TakeText())}.Packet();
      packet->header->packetLen = in->Take<uint32_t>();
      return session->Deliver(std::move(packet));
    }
    case 'P': {  // any image
      auto packet = Parsed(in->TakeText());
      return packet != nullptr && session->Deliver(std::move(packet));
    }
    case 'B': {  // an announced bandwidth
      const auto kbps = in->Take<uint32_t>();
      session->Announce(Request{.cmd = kBusReadBandwidth, .payload = test::BytesOf(kbps)}.Packet());
      return false;
    }
    case 'E':  // any bus event
      session->Announce(Parsed(in->TakeText()));
      return false;
    case 'T':
      session->PassTime(in->Take<int16_t>());
      return false;
    case 'M':
      session->Mount();
      return false;
    case 'D':
      session->DropDevice(in->Take<uint8_t>());
      return false;
    default:
      return false;
  }
}

}  // namespace

void Run(Input in) {
  static bool disk_changed = true;
  test::Log().Clear();
  if (std::exchange(disk_changed, false)) MakeDisk();
  const auto descriptors = OpenDescriptors();
  {
    Session session(in.Take<uint8_t>());
    while (!in.AtEnd()) disk_changed |= Step(&session, &in);
    session.ExpectToServe();
  }
  Expect(OpenDescriptors() == descriptors, "no descriptor stays open");
}

}  // namespace cpd::fuzz
