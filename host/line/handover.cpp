#include "line/handover.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "line/passed_message.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kWaitingOffers = 16;

/// The name of a mount point's socket: a path would be too long. Links in the path that leads to
/// the mount point are resolved; the mount point itself is not touched.
std::string SocketName(const std::string& mount_point) {
  fs::path path = fs::absolute(mount_point);
  while (!path.has_filename() || path.filename() == ".") {
    if (path == path.root_path()) break;
    path = path.parent_path();
  }
  if (!path.has_filename() || path.filename() == "..") {
    throw std::runtime_error(fmt::format("mount point {} does not end with a name", mount_point));
  }
  std::error_code error;
  const fs::path parent = fs::canonical(path.parent_path(), error);
  if (error) {
    throw std::runtime_error(fmt::format("mount point {}: {}", mount_point, error.message()));
  }
  const std::string canonical = (parent / path.filename()).string();
  const std::unique_ptr<char, decltype(&g_free)> hash(
      g_compute_checksum_for_string(G_CHECKSUM_SHA256, canonical.c_str(), -1), &g_free);
  return fmt::format("attach-{}", hash.get());
}

Descriptor NewSocket(int flags) {
  Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
  if (!made.ok()) throw std::runtime_error(fmt::format("socket: {}", std::strerror(errno)));
  return made;
}

sockaddr_un AddressOf(const RuntimeDirectory& directory, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = directory.PathOf(name);  // shorter than 108 bytes: see SocketName
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

LockFile LockFor(const RuntimeDirectory& directory, const std::string& name,
                 const std::string& mount_point) {
  LockHolder holder;
  auto lock = LockFile::Try(directory, name + ".lock", &holder);
  if (!lock) {
    throw std::runtime_error(
        fmt::format("mount point {} is in use by process {}", mount_point, holder.number));
  }
  return std::move(*lock);
}

bool IsOwnPeer(int connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == geteuid();
}

}  // namespace

// ---- The holder of the mount ----

HandoverListener::HandoverListener(const RuntimeDirectory& directory,
                                   const std::string& mount_point)
    : directory_(directory),
      name_(SocketName(mount_point)),
      lock_(LockFor(directory, name_, mount_point)),
      socket_(NewSocket(SOCK_NONBLOCK)) {
  // The socket gets its name when it listens, in one step, in place of one that a killed process
  // has left. So a refused connection to that name means that no process listens any more.
  const std::string unnamed = name_ + ".new";
  unlinkat(directory.fd(), unnamed.c_str(), 0);
  const sockaddr_un address = AddressOf(directory, unnamed);
  if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket_.get(), kWaitingOffers) != 0 ||
      renameat(directory.fd(), unnamed.c_str(), directory.fd(), name_.c_str()) != 0) {
    throw std::runtime_error(
        fmt::format("cannot listen for lines to {}: {}", mount_point, std::strerror(errno)));
  }
}

HandoverListener::~HandoverListener() { unlinkat(directory_.fd(), name_.c_str(), 0); }

std::optional<OfferedLine> HandoverListener::Accept() const {
  Descriptor connection(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!connection.ok() || !IsOwnPeer(connection.get()) ||
      !WaitReadable(connection.get(), Clock::now() + 1s)) {
    return std::nullopt;
  }
  auto message = ReceivePassed(connection.get(), kLongestHello);
  if (!message || message->descriptors.size() != 2) return std::nullopt;
  return OfferedLine{.in = std::move(message->descriptors[0]),
                     .out = std::move(message->descriptors[1]),
                     .hello = std::move(message->bytes),
                     .connection = std::move(connection)};
}

void HandoverListener::MakeWayFor(OfferedLine offer) {
  offer.Answer(Verdict::kTakeOver);
  takers_.push_back(std::move(offer.connection));
}

void OfferedLine::Answer(Verdict verdict) const {
  const auto byte = static_cast<char>(verdict);
  SendPassed(connection.get(), {&byte, 1});
}

// ---- The newer process ----

std::optional<Handover> OfferLine(const RuntimeDirectory& directory, const std::string& mount_point,
                                  int in, int out, std::string_view hello, milliseconds limit) {
  Descriptor connection = NewSocket(0);
  const sockaddr_un address = AddressOf(directory, SocketName(mount_point));
  if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    // A socket that a killed process has left is replaced by the next HandoverListener, under the
    // lock.
    if (errno == ENOENT || errno == ECONNREFUSED) return std::nullopt;
    throw std::runtime_error(
        fmt::format("cannot ask for the mount on {}: {}", mount_point, std::strerror(errno)));
  }
  SendPassed(connection.get(), hello, std::array{in, out});
  if (!WaitReadable(connection.get(), Clock::now() + limit)) {
    throw std::runtime_error(
        fmt::format("the process that holds the mount on {} does not answer", mount_point));
  }
  const auto answer = ReceivePassed(connection.get(), 1);
  if (!answer) return std::nullopt;
  auto verdict = static_cast<Verdict>(answer->bytes[0]);
  if (verdict > Verdict::kTakeOver) verdict = Verdict::kRefused;
  return Handover{.verdict = verdict, .connection = std::move(connection)};
}

void Handover::Wait() const {
  while (ReceivePassed(connection.get(), 1)) {
  }
}

}  // namespace cpd::host
