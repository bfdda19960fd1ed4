#include "exchange.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "finding.h"
#include "settings.h"
#include "wire.h"

namespace cpd::fuzz {

Host::Host(uint8_t settings) {
  setenv("TESSEL_CPD_CLIENT_CONFINE", (settings & kConfined) != 0 ? "1" : "0", 1);
  setenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", (settings & kTokenBucket) != 0 ? "0" : "1", 1);
  setenv("TESSEL_CPD_CLIENT_FORCE_BW", (settings & kForcedBandwidth) != 0 ? "8000" : "0", 1);
  if ((settings & kPathFilter) != 0) {
    device.base().SetFilter(std::make_shared<test::FakeFilter>(
        [](const std::string& path) { return path.size() % 2 == 0; }));
  }
  if ((settings & kDeafHost) != 0) device.SetSendResult(-1);
}

// ---- Packets ----

namespace {

using test::Request;

constexpr size_t kMostBytes = 1 << 20;

/// The packet whose image this is; null when it is not the image of a packet.
std::unique_ptr<CpdPacket> Parsed(std::string_view image) {
  std::string copy(image);
  auto packet = std::make_unique<CpdPacket>();
  const int result =
      packet->Parse(reinterpret_cast<uint8_t*>(copy.data()), static_cast<int>(copy.size()), true);
  return result == 0 ? std::move(packet) : nullptr;
}

std::unique_ptr<CpdPacket> TakeRequest(Input* in) {
  const auto cmd = in->Take<uint16_t>();
  return Request{.cmd = cmd, .payload = std::string(in->TakeText())}.Packet();
}

/// A request whose buffer is longer than its message, or shorter.
std::unique_ptr<CpdPacket> TakeRequestOfAnotherCapacity(Input* in) {
  const auto cmd = in->Take<uint16_t>();
  std::string image = Request{.cmd = cmd, .payload = std::string(in->TakeText())}.Bytes();
  const auto more = in->Take<int16_t>();
  const int size = static_cast<int>(image.size()) + more;
  image.resize(static_cast<size_t>(std::max(size, int{CPD_PACKET_HEADER_SIZE})), '\xa5');
  return test::PacketOf(image);
}

/// A long request: its beginning, then one text again and again.
std::unique_ptr<CpdPacket> TakeLongRequest(Input* in) {
  Request request{.cmd = in->Take<uint16_t>(), .payload = std::string(in->TakeText())};
  const std::string_view repeated = in->TakeText();
  const size_t most = kMostBytes / std::max<size_t>(repeated.size(), 1);
  const size_t times = std::min<size_t>(in->Take<uint32_t>(), most);
  request.payload.reserve(request.payload.size() + times * repeated.size());
  for (size_t i = 0; i < times; ++i) request.payload += repeated;
  return request.Packet();
}

}  // namespace

std::unique_ptr<CpdPacket> TakePacket(char kind, Input* in) {
  switch (kind) {
    case 'R':
      return TakeRequest(in);
    case 'C': {  // with any packetLen
      auto packet = TakeRequest(in);
      packet->header->packetLen = in->Take<uint32_t>();
      return packet;
    }
    case 'V':
      return TakeRequestOfAnotherCapacity(in);
    case 'Z':
      return TakeLongRequest(in);
    case 'P':  // any image
      return Parsed(in->TakeText());
    default:
      return nullptr;
  }
}

std::shared_ptr<CpdPacket> TakeBusEvent(char kind, Input* in) {
  switch (kind) {
    case 'B': {  // an announced bandwidth
      const auto kbps = in->Take<uint32_t>();
      return Request{.cmd = kBusReadBandwidth, .payload = test::BytesOf(kbps)}.Packet();
    }
    case 'E':  // any image
      return Parsed(in->TakeText());
    default:
      return nullptr;
  }
}

// ---- Answers ----

namespace {

/// The check of a command's reply; null when the command has none.
auto ReplyCheck(uint16_t cmd) {
  static const std::vector<test::NamedRequest> good = test::OneRequestPerCommand();
  const auto found = std::ranges::find(
      good, cmd, [](const test::NamedRequest& named) { return named.request.cmd; });
  return found != good.end() ? found->check_reply : nullptr;
}

/// A create that had to make directories leaves its descriptor open.
void CloseCreated(const test::SentPacket& reply) {
  const int fd = test::CreateRequest::Reply::Decode(reply).result();
  if (fd >= 0) close(fd);
}

}  // namespace

bool Changes(uint16_t cmd) {
  // Without a default the compiler names a new command that is missing here.
  switch (static_cast<Command>(cmd)) {
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
  return false;  // not a command
}

void CheckReply(const CpdPacketHeader& asked, const test::SentPacket& reply) {
  Expect(
      reply.cmd == asked.cmd && reply.request_id == asked.requestId && reply.dev_id == asked.devId,
      "an answer is addressed like its request");
  Expect(reply.packet_len <= reply.capacity, "an answer lies in its buffer");
  if (const auto check = ReplyCheck(reply.cmd)) check(reply);
  if (reply.cmd == kFileCreate) CloseCreated(reply);
}

}  // namespace cpd::fuzz
