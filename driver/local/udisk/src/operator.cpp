// The life of a request: the driver's worker thread takes it off the queue and calls EventHandle;
// the command table below names its handler; the handler reads head and path (request.h), joins the
// path to the mount point, makes one call of the file layer (file_manager_linux.h), writes the
// result into the head, and sends head and path back (reply.h). The layouts of all heads are in
// wire.h. A request that reaches past its own buffer is dropped with one Error line (a 123 with a
// path that reaches past its payload, without one).
//
// Everything here runs on that worker thread, unless operator.h says otherwise.

#include "operator.h"

#include <pwd.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include "caught.h"
#include "cpd/device.h"
#include "cpd/packet.h"
#include "cpd/trace_keys.h"
#include "cpd/tracer.h"
#include "file_manager_linux.h"
#include "reply.h"
#include "request.h"
#include "udisk_log.h"

namespace cpd {

// ---- Command table ----

namespace {

struct HandlerRow {
  uint16_t code;
  int64_t (UDiskOperator::*handler)(unsigned char header_length, CpdPacket* request);
  unsigned char header_length;
};

constexpr unsigned char kHeaderSize = CPD_PACKET_HEADER_SIZE;

// A command without a handler is accepted and ignored.
constexpr std::array kHandlers = std::to_array<HandlerRow>({
    {kMountRemote, &UDiskOperator::mount_remote, kHeaderSize},
    {kUmountRemote, &UDiskOperator::umount_remote, kHeaderSize},
    {kGetFileAttr, &UDiskOperator::get_file_attr, kHeaderSize},
    {kFileCreate, &UDiskOperator::file_create, kHeaderSize},
    {kFileOpen, nullptr, 0},
    {kFileRead, &UDiskOperator::file_read, kHeaderSize},
    {kFileWrite, &UDiskOperator::file_write, kHeaderSize},
    {kDirRead, &UDiskOperator::dir_read, kHeaderSize},
    {kGetXattr, &UDiskOperator::get_xattr, kHeaderSize},
    {kFileTruncate, &UDiskOperator::file_truncate, kHeaderSize},
    {kFileFsync, &UDiskOperator::file_fsync, kHeaderSize},
    {kFileChmod, &UDiskOperator::file_chmod, kHeaderSize},
    {kFileChown, &UDiskOperator::file_chown, kHeaderSize},
    {kGetStatvfs, &UDiskOperator::get_statvfs, kHeaderSize},
    {kMakeDir, &UDiskOperator::make_dir, kHeaderSize},
    {kRemoveDir, &UDiskOperator::remove_dir, kHeaderSize},
    {kSetLink, &UDiskOperator::set_link, kHeaderSize},
    {kSetUnlink, &UDiskOperator::set_unlink, kHeaderSize},
    {kSetRename, &UDiskOperator::set_rename, kHeaderSize},
    {kFileFlush, &UDiskOperator::file_flush, 0},
    {kFileRelease, &UDiskOperator::file_release, 0},
    {kCheckDir, &UDiskOperator::check_dir, kHeaderSize},
    {kSmallFileNotice, nullptr, 0},
    {kSmallFileRead, &UDiskOperator::small_file_read, kHeaderSize},
    {kMountResponse, &UDiskOperator::mount_response, 0},
});
static_assert(std::ranges::equal(kHandlers, kCommandNames, {}, &HandlerRow::code,
                                 &CommandRow::code),
              "each command has its row, in the order of wire.h");

}  // namespace

int UDiskOperator::EventHandle(std::unique_ptr<CpdPacket> packet) {
  if (packet == nullptr || packet->buffer == nullptr || packet->header == nullptr) return 0;
  const auto row = std::ranges::lower_bound(kHandlers, packet->header->cmd, {}, &HandlerRow::code);
  if (row == kHandlers.end() || row->code != packet->header->cmd) return 0;
  if (row->handler == nullptr) return 0;
  try {
    (this->*row->handler)(row->header_length, packet.get());
  } catch (...) {  // no memory, given up, or thrown by the host: only this request fails
    UDISK_ERROR("%s failed: %s", CommandName(row->code), CaughtText());
  }
  return 0;
}

void UDiskOperator::Idle() { mFileManager->LetGo(); }

void UDiskOperator::GiveUp() { mFileManager->GiveUp(); }

int UDiskOperator::BusEventHandle(const std::shared_ptr<CpdPacket>& packet) {
  if (packet == nullptr || packet->buffer == nullptr || packet->header == nullptr) return 0;
  const uint16_t cmd = packet->header->cmd;
  uint32_t announced = 0;
  if (packet->ReadUint32(&announced) != 0 || cmd != kBusReadBandwidth) return 0;
  lastBwUpdateMs = static_cast<int64_t>(getCurrentTime());
  const auto now = static_cast<int64_t>(getCurrentTime());
  bwEventMs = now;
  // Contract: the announced rate is compared with the stored one. A rate from 1 to 999 is stored
  // as 1000, so it is never equal and always counts as a change.
  if (now - lastBwTraceMs >= 5001 && announced != readBwKbps) {
    lastBwTraceMs = now;  // first: the host may announce again from within the trace
    char message[sizeof "Udisk read bwinfo:4294967295"];
    (void)std::snprintf(message, sizeof message, "Udisk read bwinfo:%u", announced);
    TryTrace("UDISK_READ_BW_INFO", message);
    UDISK_DEBUG("busEventHandle cmd: %d, paylaodSize: %d,requestId:%u bw:%d\n", cmd,
                static_cast<int>(packet->PayloadSize()), uint32_t{packet->header->requestId},
                static_cast<int>(announced));
  }
  readBwKbps = announced == 0 ? 0 : std::max<uint32_t>(announced, 1000);
  return 0;
}

// ---- Life ----

UDiskOperator::UDiskOperator(CpdDevice* device) : mDevice(device) {
  const char* legacy = std::getenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY");
  legacyThrottle = legacy == nullptr || std::atoi(legacy) != 0;
  const char* force = std::getenv("TESSEL_CPD_CLIENT_FORCE_BW");
  if (force != nullptr) forceBw = std::atoi(force);
  UDISK_DEBUG("[UDisk] throttle mode=%s, FORCE_BW=%s", legacyThrottle ? "LEGACY" : "TOKEN_BUCKET",
              force != nullptr ? force : "not set");
  const char* confine = std::getenv("TESSEL_CPD_CLIENT_CONFINE");
  // Every value except an empty one and 0 confines: a value with a typo must not lift the
  // restriction.
  if (confine == nullptr || *confine == '\0' || std::strcmp(confine, "0") == 0) {
    UDISK_DEBUG("[UDisk] CONFINE=%s: paths may lead out of the mount point",
                confine != nullptr ? confine : "not set");
    mFileManager = std::make_unique<FileManagerLinux>();
  } else {
    UDISK_DEBUG("[UDisk] CONFINE=%s: no path leads out of the mount point", confine);
    mFileManager = std::make_unique<FileManagerLinux>([this] { return CopyDiskRoot(); });
  }
}

UDiskOperator::~UDiskOperator() = default;

int UDiskOperator::GetCID() { return 0; }
int UDiskOperator::GetVid() { return 0; }
int UDiskOperator::GetPid() { return 0; }
void UDiskOperator::Stop() {}

std::string UDiskOperator::GetDrvName() {
  const std::lock_guard lock(mLock);
  return mMountDrive;
}

int UDiskOperator::GetDeviceId() {
  const std::lock_guard lock(mDeviceLock);
  CpdDevice* const device = mDevice;
  try {
    return device != nullptr ? device->GetDevId() : 0;
  } catch (...) {
    UDISK_ERROR("GetDeviceId failed: %s", CaughtText());
    return 0;
  }
}

void UDiskOperator::LetGoOfDevice() {
  const std::lock_guard lock(mDeviceLock);
  mDevice = nullptr;
}

std::string UDiskOperator::GetRemoteMountPoint() {
  std::string drive = GetDrvName();
  UDISK_DEBUG("remote mMountDrive:%s", drive.c_str());
  return drive;
}

std::string UDiskOperator::GetLocalMountPoint() {
  std::string mount_point = CopyMountPoint();
  UDISK_DEBUG("local mMountDrive:%s", mount_point.c_str());
  return mount_point;
}

int UDiskOperator::SetRootPath(const char* letter, const char* label) {
  bool both = letter != nullptr && label != nullptr;
  if (both && std::strlen(letter) + std::strlen(label) >= sizeof mMountPoint) {
    UDISK_ERROR("letter and label are too long: %zu", std::strlen(letter) + std::strlen(label));
    both = false;
  }
  if (!both) {
    {
      const std::lock_guard lock(mLock);
      std::memset(mMountPoint, 0, sizeof mMountPoint);
      mDiskRoot = {};
      mVolumes.clear();
    }
    mFileManager->LetGo();
    return -1;
  }
  const std::shared_ptr<VolumeRecord> record(
      static_cast<VolumeRecord*>(std::calloc(1, sizeof(VolumeRecord))),
      [](VolumeRecord* block) { std::free(block); });
  if (record == nullptr) throw std::bad_alloc();
  std::string_view(label).copy(record->label, sizeof record->label);
  const std::string mount_point = std::string(letter) + label;
  DiskRoot root = mFileManager->RootAt(mount_point);
  {
    const std::lock_guard lock(mLock);
    std::memset(mMountPoint, 0, sizeof mMountPoint);
    mount_point.copy(mMountPoint, sizeof mMountPoint - 1);
    mDiskRoot = std::move(root);
  }
  UDISK_DEBUG("letter: %s, mMountPoint: %s, label: %s\n", letter, mount_point.c_str(), label);
  UDISK_DEBUG("==============letter:%s\n", mount_point.c_str());
  // Outside the lock: a disk that hangs must not block callers that only ask for the mount point.
  mFileManager->UdiskGetStatvfs(mount_point.c_str(), &record->stat);
  const std::lock_guard lock(mLock);
  mVolumes.push_back(record);
  return 0;
}

// ---- Shared by the handlers ----

uint64_t getCurrentTime() {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

std::string UDiskOperator::CopyMountPoint() {
  const std::lock_guard lock(mLock);
  return mMountPoint;
}

DiskRoot UDiskOperator::CopyDiskRoot() {
  const std::lock_guard lock(mLock);
  return mDiskRoot;
}

int64_t UDiskOperator::Send(std::unique_ptr<CpdPacket> reply) {
  CpdDevice* const device = mDevice;
  if (reply->header == nullptr || device == nullptr) return -1;
  return device->SendPacket(std::move(reply), -1);
}

namespace {

/// Logs that a request does not fit its buffer and is dropped. @return -1
int64_t Dropped(const char* handler = __builtin_FUNCTION()) {
  UDISK_LOG(7, "Error:", handler, "%s dropped: the request reaches past its buffer", handler);
  return -1;
}

/// The reply to most requests: their own head, with the result in it, and their path.
template <class Head>
Reply EchoReply(unsigned char header_length, CpdPacket* request, PathRequest<Head>* in) {
  in->StoreHead();
  Reply reply(request, header_length, sizeof in->head + in->path.size());
  reply.Append(in->head).Append(in->path);
  return reply;
}

/// A trace message: its place in the source, then the text.
std::string Located(std::string_view text, const char* function = __builtin_FUNCTION(),
                    int line = __builtin_LINE()) {
  return std::string("[") + BaseName(__FILE__) + " " + function + "(" + std::to_string(line) +
         ")] " + std::string(text);
}

/// A listing that owns its buffer. It starts empty, and stays so when the directory cannot be read.
struct Listing : _UDISK_DIR_ATTR {
  Listing() : _UDISK_DIR_ATTR{} {}
  ~Listing() { std::free(buf); }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;
  [[nodiscard]] std::string_view bytes() const {
    return {reinterpret_cast<const char*>(buf), buf_len};
  }
};

}  // namespace

// ---- Throttle ----

void UDiskOperator::throttleRead(uint32_t bytes, BulkRead kind) {
  const auto now = static_cast<int64_t>(getCurrentTime());
  const auto drop_stale = [&] {
    if (now - lastBwUpdateMs >= 5001) readBwKbps = 0;
  };
  const auto force = [&](int64_t when) {
    if (forceBw == 0) return;
    readBwKbps = static_cast<uint32_t>(forceBw);
    lastBwUpdateMs = when;
  };
  // Contract: the two bulk reads apply these rules in opposite order.
  if (kind == BulkRead::kFile) {
    lastReadMs = now;
    force(now);
    drop_stale();
  } else {
    drop_stale();
    force(static_cast<int64_t>(getCurrentTime()));
  }
  const uint32_t kbps = readBwKbps;  // read once: later announcements hold for later reads
  if (kbps == 0) return;
  if (legacyThrottle) {
    throttleLegacy(bytes, kbps, kind);
  } else {
    tokenBucket.updateRate(kbps);
    tokenBucket.consume(bytes);
  }
}

void UDiskOperator::throttleLegacy(uint32_t bytes, uint32_t kbps, BulkRead kind) {
  legacyBytes += bytes;
  const auto start = static_cast<int64_t>(getCurrentTime());
  // Contract: the allowances are those of 512 and 51.2 ms, although the periods are 500 and 50 ms.
  const bool slow = kbps <= 10240;
  const int64_t period_ms = slow ? 500 : 50;
  const uint32_t allowance = slow ? (kbps >> 3) << 9 : ((kbps >> 3) << 10) / 20;
  if (legacyBytes >= allowance) {
    if (legacyOverrunMs < period_ms) {
      usleep(static_cast<uint32_t>((period_ms - legacyOverrunMs) * 1000));
    }
    legacyBytes = kind == BulkRead::kFile ? bytes : 0;
  }
  const int64_t elapsed = static_cast<int64_t>(getCurrentTime()) - start;
  legacyOverrunMs = std::max<int64_t>(elapsed - period_ms, 0);
}

// ---- Traces ----

namespace {

/// 16 hexadecimal digits, from a generator that is seeded for this one id.
std::string MakeTraceId() {
  uint32_t seed = 0;
  try {
    seed = std::random_device("/dev/urandom")();
  } catch (const std::exception&) {  // no descriptor left: a weaker id beats a lost record
    seed = static_cast<uint32_t>(getCurrentTime());
  }
  std::mt19937_64 generator(seed);
  std::uniform_int_distribution<uint64_t> any;
  char id[17];
  (void)std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(any(generator)));
  return id;
}

}  // namespace

void UDiskOperator::TraceCpdDevice(std::string event, CpdDevice* device, bool success,
                                   std::string message, const std::string& path,
                                   const std::string& /*extra*/) {
  if (device == nullptr || device->getDevBase() == nullptr) return;
  const std::string name = "LOCAL_" + std::move(event);
  const std::map<std::string, std::string> fields{
      {trace_keys::kStatus, success ? "success" : "error"},
      {trace_keys::kMessage, message},
      {trace_keys::kSuccess, success ? "true" : "false"},
      {trace_keys::kProductName, GetLocalMountPoint()},
  };
  const std::shared_ptr<CpdDeviceBase> base = device->getDevBase();
  if (base == nullptr) return;  // gone since the first look
  CpdTracer::GetInstance();
  const std::string id = MakeTraceId();
  if (path.empty()) {
    base->TraceEvent(id, name, fields);
  } else {
    base->TraceEventDetail(id, path, name, fields);
  }
}

void UDiskOperator::TryTrace(const char* event, const char* message) {
  try {
    TraceCpdDevice(event, mDevice, true, message, "", "");
  } catch (...) {
    UDISK_ERROR("%s is not traced: %s", event, CaughtText());
  }
}

void UDiskOperator::TraceError(const std::string& message) {
  TraceCpdDevice("DEVICE_REDIR_ERROR", mDevice, false, message, "", "");
}

bool UDiskOperator::TraceFile(const char* event, bool success, const char* text,
                              const char* relative_path, const char* function, int line) {
  CpdDevice* const device = mDevice;
  const std::shared_ptr<CpdDeviceBase> base = device != nullptr ? device->getDevBase() : nullptr;
  const std::shared_ptr<CpdPathFilter> filter = base != nullptr ? base->GetPathFilter() : nullptr;
  if (filter == nullptr) return false;
  const std::string path = relative_path;
  if (filter->MatchPath(path) == nullptr) return false;
  TraceCpdDevice(event, device, success, Located(text, function, line), path, "");
  return true;
}

// ---- Mount handshake: 100, 101, 200 ----

namespace {

/// The directory in which the process's user finds a disk of that name.
std::string LocalMountPath(const std::string& name) {
  static std::mutex lock;  // getpwuid returns a buffer that all threads share
  const std::lock_guard guard(lock);
  // Contract: the user id is cut to 16 bits, so 65536 counts as root.
  const auto user = static_cast<uint16_t>(getuid());
  const struct passwd* entry = user != 0 ? getpwuid(user) : nullptr;
  const std::string home = entry != nullptr ? entry->pw_dir : "/media";
  return (home + "/" + name.substr(0, name.find('\0'))).substr(0, 255);
}

}  // namespace

// 100: name -> the same. Makes the directory. Contract: it also clears the mount point and the
// volumes; only the service sets them.
int64_t UDiskOperator::mount_remote(unsigned char header_length, CpdPacket* request) {
  PayloadReader in(request);
  MountHead head{};
  std::string_view name;
  if (!in.Read(&head) || !in.ReadBytes(head.name_length, &name)) return Dropped();

  const std::string path = LocalMountPath(std::string(name));
  if (!mFileManager->IsDirectory(path.c_str())) {
    const int made = mFileManager->MakeOneDir(path.c_str(), 0777);
    UDISK_DEBUG("mkdir res: %d", made);
  }
  SetRootPath(path.c_str(), nullptr);  // without a label: clears the mount point
  UDISK_DEBUG("mount path: %s\n", path.c_str());

  Reply reply(request, header_length, sizeof head + name.size());
  return Send(reply.Append(head).Append(name).Take());
}

// 101: name -> the same. Nothing is removed from the disk.
int64_t UDiskOperator::umount_remote(unsigned char header_length, CpdPacket* request) {
  PayloadReader in(request);
  MountHead head{};
  std::string_view name;
  if (!in.Read(&head) || !in.ReadBytes(head.name_length, &name)) return Dropped();

  SetRootPath(nullptr, nullptr);
  UDISK_DEBUG("umount path: %s\n", "");  // Contract: the path in this line is always empty.

  Reply reply(request, header_length, sizeof head + name.size());
  return Send(reply.Append(head).Append(name).Take());
}

// 200: drive, label -> no reply. The first length belongs to the second text.
int64_t UDiskOperator::mount_response(unsigned char /*header_length*/, CpdPacket* request) {
  UDISK_DEBUG("vmId: %d", mVmId);
  PayloadReader in(request);
  MountResponseHead head{};
  std::string_view drive;
  std::string_view label;
  if (!in.Read(&head) || !in.ReadBytes(head.drive_length, &drive) ||
      !in.ReadBytes(head.label_length, &label)) {
    return Dropped();
  }
  // Each text ends at its first NUL, if it has one.
  const std::string drive_text(drive.substr(0, drive.find('\0')));
  const std::string label_text(label.substr(0, label.find('\0')));
  UDISK_DEBUG("mount_response header_len: %d, label: %s, drive: %s\n",
              static_cast<int>(sizeof head), label_text.c_str(), drive_text.c_str());
  {
    const std::lock_guard lock(mLock);
    mMountDrive = drive_text;
  }
  TraceCpdDevice("DEVICE_OPEN", mDevice, true,
                 Located("udisk create success RemoteMountPoint:" + drive_text), "", "");
  return -1;
}

// ---- Attributes: 102, 108, 113 ----

// 102: head, path -> head with the attribute length, path, udisk_stat. A path with a NUL gets no
// reply, unlike in 108 and 113.
int64_t UDiskOperator::get_file_attr(unsigned char header_length, CpdPacket* request) {
  PathRequest<FileAttrHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("get_file_attr path name: %s, size:%d\n", in.relative_path(),
              int{in.head.path_length});
  if (HasNul(in.path)) {
    UDISK_ERROR("get_file_attr path not match\n");
    return -1;
  }
  UDISK_DEBUG("get_attr full path: %s\n", in.full_path.c_str());

  udisk_stat attributes{};
  const bool found = mFileManager->UdiskGetFileInformation(in.full_path.c_str(), &attributes) == 0;
  in.head.attr_length = found ? sizeof attributes : 0;
  in.StoreHead();

  Reply reply(request, header_length, sizeof in.head + in.path.size() + in.head.attr_length);
  reply.Append(in.head).Append(in.path);
  if (found) reply.Append(attributes);
  UDISK_DEBUG("get_attr send back file size: %llu, buf_len:%d\n",
              static_cast<unsigned long long>(attributes.st_size), int{in.head.attr_length});
  return Send(reply.Take());
}

// 108: head, path, name -> head with zeros, name. Extended attributes are not supported: no file
// is touched, and the path is not echoed.
int64_t UDiskOperator::get_xattr(unsigned char header_length, CpdPacket* request) {
  PathRequest<XattrHead> in(request, CopyMountPoint());
  std::string_view name;
  if (!in.ok() || !in.rest.ReadBytes(in.head.name_length, &name)) return Dropped();
  if (HasNul(name)) {
    UDISK_ERROR("get_xattr name length not match\n");
    return -1;
  }
  UDISK_DEBUG("get_xattr full path: %s\n", in.full_path.c_str());

  in.head.result = 0;
  in.head.value_length = 0;
  in.StoreHead();

  // Contract: the reply's buffer has room for the path, too, although the path is not echoed.
  Reply reply(request, header_length, sizeof in.head + in.path.size() + name.size());
  return Send(reply.Append(in.head).Append(name).Take());
}

// 113: head, path -> head, path, statistics. The path's first component selects the volumes whose
// label begins with it. Contract: after a change all of them are refreshed and sent, otherwise only
// the first is sent, as it is.
int64_t UDiskOperator::get_statvfs(unsigned char header_length, CpdPacket* request) {
  const auto [mount_point, volumes] = CopyMount();
  PathRequest<StatvfsHead> in(request, mount_point);
  if (!in.ok()) return Dropped();
  const std::string label(FirstComponent(in.relative_path()));
  UDISK_DEBUG("get_statvfs file_name: %s, full path: %s,name len:%d, label: %s\n",
              in.relative_path(), in.full_path.c_str(), static_cast<int>(in.head.path_length),
              label.c_str());
  in.head.record_length = sizeof(udisk_statvfs);
  in.StoreHead();

  Reply reply(request, header_length, sizeof in.head + in.path.size() + sizeof(udisk_statvfs));
  const int capacity = reply.capacity();  // for the log, before further records make it grow
  reply.Append(in.head).Append(in.path);
  for (const auto& volume : volumes) {
    if (std::strncmp(volume->label, label.c_str(), label.size()) != 0) continue;
    if (modified == 0) {
      reply.Append(volume->stat);
      break;
    }
    // Contract: each volume gets the statistics of the current mount point, not of its own.
    mFileManager->UdiskGetStatvfs(mount_point.c_str(), &volume->stat);
    reply.Append(volume->stat);
  }
  modified = 0;
  UDISK_DEBUG("get_statvfs send back size:%d, buf len: %d", capacity,
              static_cast<int>(sizeof(udisk_statvfs)));
  return Send(reply.Take());
}

std::pair<std::string, std::list<std::shared_ptr<VolumeRecord>>> UDiskOperator::CopyMount() {
  const std::lock_guard lock(mLock);
  return {mMountPoint, mVolumes};
}

// ---- Open files: 103, 104, 109 to 112, 119, 120 ----
//
// No file stays open: each request names its file by path and makes one call of the file layer.

// 103: head, path -> head with a descriptor number or -1, path. The flags are not passed on.
int64_t UDiskOperator::file_create(unsigned char header_length, CpdPacket* request) {
  PathRequest<CreateHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("file_create full path: %s, flag:%x, mode: %x\n", in.full_path.c_str(),
              uint32_t{in.head.flags}, uint32_t{in.head.mode});

  const int result =
      mFileManager->UdiskCreateFile(in.full_path.c_str(), 0, static_cast<int>(in.head.mode));
  if (result >= 0) {
    lastWriteEnd = 0;
  } else {
    TraceError(Located("udisk CreatFile fail"));
  }
  in.head.result = result;

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("file_create send size:%d file fd: %d\n", reply.capacity(), result);
  modified = 1;
  return Send(reply.Take());
}

int64_t UDiskOperator::file_open(unsigned char /*header_length*/, CpdPacket* /*request*/) {
  return 0;
}

bool check_microsoft_suffix(const char* name) {
  const char* const suffix = std::strrchr(name, '.');
  if (suffix == nullptr) {
    UDISK_DEBUG("filename: %s without suffix", name);
    return false;
  }
  UDISK_DEBUG("suffix: %s", suffix);
  return IsUnlimitedSuffix(suffix);
}

// 109: head, path -> head with the result, path. Contract: the reply's head keeps the requested
// length, even where the file got only kMostTruncateLength.
int64_t UDiskOperator::file_truncate(unsigned char header_length, CpdPacket* request) {
  PathRequest<TruncateHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("file_truncate full path: %s,name len:%d,offset:%llu\n", in.full_path.c_str(),
              static_cast<int>(in.head.path_length),
              static_cast<unsigned long long>(in.head.length));

  uint64_t length = in.head.length;
  if (length > kMostTruncateLength && !check_microsoft_suffix(in.full_path.c_str())) {
    length = kMostTruncateLength;
  }
  in.head.result = mFileManager->UdiskTruncate(in.full_path.c_str(), static_cast<int64_t>(length));
  UDISK_DEBUG("file_truncate resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("file_truncate send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 110: head, path -> head with the result, path.
int64_t UDiskOperator::file_fsync(unsigned char header_length, CpdPacket* request) {
  PathRequest<FsyncHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("file_fsync full path: %s,name len:%dlu\n", in.full_path.c_str(),
              static_cast<int>(in.head.path_length));

  in.head.result = mFileManager->UdiskFsync(in.full_path.c_str());
  UDISK_DEBUG("file_fsync  resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("file_fsync send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 111: head, path -> head with the result, path. Free space does not change: `modified` stays.
int64_t UDiskOperator::file_chmod(unsigned char header_length, CpdPacket* request) {
  PathRequest<ChmodHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("file_chmod full path: %s,name len:%d,mode: %d\n", in.full_path.c_str(),
              int{in.head.path_length}, int{in.head.mode});

  in.head.result = mFileManager->UdiskFileChmod(in.full_path.c_str(), in.head.mode);
  UDISK_DEBUG("file_chmod resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("file_chmod send back size:%d", reply.capacity());
  return Send(reply.Take());
}

// 112: head, path -> head with the result, path. Free space does not change: `modified` stays.
int64_t UDiskOperator::file_chown(unsigned char header_length, CpdPacket* request) {
  PathRequest<ChownHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  const auto uid = static_cast<int>(in.head.uid);
  const auto gid = static_cast<int>(in.head.gid);
  UDISK_DEBUG("file_chown full path: %s,name len:%d,uid: %d, gid: %d\n", in.full_path.c_str(),
              static_cast<int>(in.head.path_length), uid, gid);

  in.head.result = mFileManager->UdiskFileChown(in.full_path.c_str(), uid, gid);
  UDISK_DEBUG("file_chown resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("file_chown send back size:%d", reply.capacity());
  return Send(reply.Take());
}

namespace {

/// Whether a request whose reply is a copy of it can be copied.
bool CanBeCopied(const CpdPacket& request) {
  const uint32_t length = request.header->packetLen;
  return length >= CPD_PACKET_HEADER_SIZE && length <= request.buffer->capacity;
}

}  // namespace

// 119: head, path -> the request itself. Contract: 119 does not flush; 110 and 120 do.
int64_t UDiskOperator::file_flush(unsigned char /*header_length*/, CpdPacket* request) {
  const PathRequest<CloseHead> in(request, CopyMountPoint());
  if (!in.ok() || !CanBeCopied(*request)) return Dropped();
  UDISK_DEBUG("file_flush fd: %d, path: %s\n", static_cast<int>(in.head.fd), in.relative_path());
  return SendCopy(request);
}

// 120: head, path -> the request itself, even when the sync failed.
int64_t UDiskOperator::file_release(unsigned char /*header_length*/, CpdPacket* request) {
  const std::string mount_point = CopyMountPoint();
  const PathRequest<CloseHead> in(request, mount_point);
  if (!in.ok() || !CanBeCopied(*request)) return Dropped();
  UDISK_DEBUG("file_release fd: %d, path: %s, mMountPoint: %s\n", static_cast<int>(in.head.fd),
              in.relative_path(), mount_point.c_str());
  mFileManager->UdiskRelease(in.full_path.c_str());
  return SendCopy(request);
}

int64_t UDiskOperator::SendCopy(const CpdPacket* request) {
  std::unique_ptr<CpdPacket> copy(request->Clone());
  return copy != nullptr ? Send(std::move(copy)) : -1;
}

// ---- Data: 105, 106, 123 ----

// Allocating up to this many bytes costs less than asking the file for its size.
constexpr int kNotWorthAsking = 64 << 10;

// 105: head, path -> head with the bytes read, path, data. The data is read straight into the
// reply. Contract: a read that fails is answered with 0 bytes and traced as a success.
int64_t UDiskOperator::file_read(unsigned char header_length, CpdPacket* request) {
  PathRequest<ReadHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  throttleRead(in.head.size);

  const size_t before_data = sizeof in.head + in.path.size();
  std::optional<Reply> reply;
  const auto make_room = [&](int fd) {
    const auto asked = static_cast<int>(in.head.size);
    if (FileManagerLinux::Overflows(in.head.offset, asked)) return ReadRoom{nullptr, asked};
    const int count =
        asked <= kNotWorthAsking ? asked : FileManagerLinux::Deliverable(fd, in.head.offset, asked);
    reply.emplace(request, header_length, before_data + static_cast<size_t>(std::max(count, 0)));
    uint8_t* const room = reply->Room(before_data);
    return ReadRoom{room, room != nullptr ? count : 0};
  };
  uint32_t error = 0;
  int result = mFileManager->UdiskReadFile(in.full_path.c_str(), in.head.offset, &error,
                                           std::ref(make_room));
  const char* const path = in.relative_path();
  if (result == -1) {  // for a file layer that returns -1 on failure; FileManagerLinux returns 0
    UDISK_ERROR("file_read failed res: %d, \n", result);
    if (TraceFile("UDISK_READ_FILE_FAIL", false, "udisk readFile fail", path)) {
      mDevice.load()->ReportReadFail(path);
    }
    result = 0;
  } else {
    TraceFile("UDISK_READ_FILE_SUCCESS", true, "udisk readFile success", path);
  }

  if (!reply) reply.emplace(request, header_length, before_data);
  in.head.size = static_cast<uint32_t>(result);
  in.StoreHead();
  reply->Append(in.head).Append(in.path).Commit(in.head.size).Trim();
  return Send(reply->Take());
}

// 106: head, path, data -> head with the size or 0, path; no reply when the markers differ.
// Contract: a batch that fails part-way keeps the pieces it has written; its reply says only 0.
int64_t UDiskOperator::file_write(unsigned char /*header_length*/, CpdPacket* request) {
  PathRequest<WriteHead> in(request, CopyMountPoint());
  const int size = in.head.size;
  std::string_view data;
  if (!in.ok() || !in.rest.ReadBytes(static_cast<size_t>(std::max(size, 0)), &data)) {
    return Dropped();
  }
  uint32_t error = 0;
  const int result = in.head.single != 0
                         ? mFileManager->UdiskWriteFile(in.full_path.c_str(), data.data(),
                                                        in.head.offset, size, &error)
                         : WriteBatch(in.full_path.c_str(), data, &error);
  lastWriteEnd =
      static_cast<int64_t>(static_cast<uint64_t>(in.head.offset) + static_cast<uint32_t>(size));

  const char* const path = in.relative_path();
  if (result == size) {  // Contract: a failed write of size -1 counts as a success, too.
    TraceFile("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", path);
  } else {
    in.head.size = 0;
    in.StoreHead();
    UDISK_ERROR("file_write failed, res: %d", result);
    if (error == EROFS || error == EACCES) {
      TraceFile("UDISK_WRITE_FILE_DISK_ACCESS_DENIED", false,
                "udisk writeFile fail Permission exception", path);
    } else {
      TraceFile("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", path);
    }
  }
  if (in.head.marker_a != in.head.marker_b) return -1;

  Reply reply = EchoReply(CPD_PACKET_HEADER_SIZE, request, &in);
  modified = 1;
  return Send(reply.Take());
}

/// Writes the pieces of a batch up to the first that fails or reaches past the batch.
/// @return bytes of the batch that were dealt with, including the head of a piece that failed
int UDiskOperator::WriteBatch(const char* path, std::string_view batch, uint32_t* error) {
  int position = 0;
  auto remaining = static_cast<int>(batch.size());
  WritePieceHead piece{};
  constexpr int kHead = sizeof piece;
  while (remaining > kHead) {
    const char* const at = batch.data() + position;
    std::memcpy(&piece, at, sizeof piece);
    mFileManager->StopIfGivenUp();
    const int length = piece.length;
    if (remaining < int64_t{length} + kHead) {
      UDISK_ERROR_OF(file_write, "buffer length error, size: %d, buffer_size:%d", length,
                     remaining);
      return position + kHead;
    }
    const int written = mFileManager->UdiskWriteFile(path, at + kHead, piece.offset, length, error);
    if (written != length) {
      UDISK_ERROR_OF(file_write, "file_write failed size: %d, result: %d", length, written);
      return position + kHead;
    }
    position += length + kHead;
    remaining -= length + kHead;
  }
  return position;
}

namespace {

struct SmallFileRecord {
  std::string path;  ///< relative, as received
  std::string full_path;
  int64_t offset;
  uint32_t size;
  uint32_t path_length;
  int count;  ///< bytes to read: no more than the file can deliver
};

/// Reads the records of a 123. @return 0, or what the handler returns for a malformed request
int ReadSmallFileRecords(PayloadReader* in, uint32_t remaining, uint32_t count,
                         const std::string& mount_point, const FileManagerLinux& files,
                         std::list<SmallFileRecord>* records) {
  for (uint32_t i = 0; i < count; ++i) {
    files.StopIfGivenUp();
    ReadHead head{};
    std::string_view path;
    if (remaining < sizeof head) {
      UDISK_ERROR_OF(small_file_read, "small_file_read remaining %d, \n",
                     static_cast<int>(remaining));
      return -2;
    }
    if (!in->Read(&head)) return static_cast<int>(Dropped("small_file_read"));
    remaining -= sizeof head;
    if (head.path_length < 1 || head.path_length > remaining) return -3;
    if (!in->ReadBytes(head.path_length, &path)) {
      return static_cast<int>(Dropped("small_file_read"));
    }
    remaining -= head.path_length;
    SmallFileRecord& record = records->emplace_back();
    record.path = path;
    record.full_path = JoinPath(mount_point, path);
    record.offset = head.offset;
    record.size = head.size;
    record.path_length = head.path_length;
    record.count =
        files.Deliverable(record.full_path.c_str(), record.offset, static_cast<int>(record.size));
  }
  return 0;
}

}  // namespace

// 123: count, then that many heads with a path -> the same, each with its data. A malformed request
// gets no reply; a file that cannot be read gives 0 bytes. Unlike 105, it traces nothing.
int64_t UDiskOperator::small_file_read(unsigned char /*header_length*/, CpdPacket* request) {
  PayloadReader in(request);
  SmallReadHead head{};
  const uint32_t payload_length = request->PayloadSize();
  if (payload_length < sizeof head || !in.Read(&head)) {
    UDISK_ERROR("small_file_read payload_length %d, \n", static_cast<int>(payload_length));
    return -1;
  }
  std::list<SmallFileRecord> records;
  const int malformed = ReadSmallFileRecords(&in, payload_length - sizeof head, head.count,
                                             CopyMountPoint(), *mFileManager, &records);
  if (malformed != 0) return malformed;

  // Contract: the throttle is charged with the requested sizes, added up in 32 bits and without the
  // count. The buffer is allocated for what the files can deliver.
  uint32_t planned = CPD_PACKET_HEADER_SIZE;
  size_t room = sizeof head;
  for (const SmallFileRecord& record : records) {
    planned += record.size + record.path_length + static_cast<uint32_t>(sizeof(ReadHead));
    room += static_cast<size_t>(std::max(record.count, 0)) + record.path_length + sizeof(ReadHead);
  }
  if (room > INT32_MAX - CPD_PACKET_HEADER_SIZE) {
    UDISK_ERROR("small_file_read: no packet holds %zu bytes", room);
    return -1;
  }
  Reply reply(request, CPD_PACKET_HEADER_SIZE, room);
  reply.AppendUint32(head.count);
  for (const SmallFileRecord& record : records) {
    mFileManager->StopIfGivenUp();
    ReadHead out{};
    out.offset = record.offset;
    out.path_length = record.path_length;
    uint32_t error = 0;
    int result = 0;
    if (reply.ok()) {  // straight into the reply, after head and path
      const ReadRoom into =
          FileManagerLinux::Overflows(record.offset, static_cast<int>(record.size))
              ? ReadRoom{nullptr, static_cast<int>(record.size)}
              : ReadRoom{reply.Room(sizeof out + record.path_length), record.count};
      result = mFileManager->UdiskReadFile(record.full_path.c_str(), into.data, record.offset,
                                           into.count, &error);
    }
    if (result == -1) {  // for a file layer that returns -1 on failure; FileManagerLinux returns 0
      UDISK_ERROR("file_read failed res: %d, \n", 0);
      result = 0;
    }
    out.size = static_cast<uint32_t>(result);
    reply.Append(out).Append(record.path).Commit(out.size);
  }

  if (!reply.ok()) return -1;
  throttleRead(planned, BulkRead::kSmallFiles);
  Send(reply.Trim().Take());
  return 0;  // Contract: not SendPacket's result, which every other handler returns.
}

// ---- Directories: 107, 121 ----

namespace {

/// The fields of an entry in which a change shows.
struct ListedEntry {
  std::string_view name;  // up to its NUL
  int64_t size;
  int64_t seconds;  // of the modification time
};

/// Reads the entry at `*at`, in a listing that passed WalksCleanly, and moves `*at` past it.
ListedEntry NextEntry(const char** at) {
  udisk_dir_entry head{};
  std::memcpy(&head, *at, sizeof head);
  const ListedEntry entry{*at + sizeof head, head.attributes.st_size,
                          head.attributes.st_mtim.tv_sec};
  *at += sizeof head + head.name_len;
  return entry;
}

/// Whether `listing` holds `count` whole entries, each with a NUL-terminated name.
bool WalksCleanly(std::string_view listing, int count) {
  udisk_dir_entry head{};
  for (int i = 0; i < count; ++i) {
    if (listing.size() < sizeof head) return false;
    std::memcpy(&head, listing.data(), sizeof head);
    const std::string_view name = listing.substr(sizeof head, head.name_len);
    if (name.size() != head.name_len || name.empty() || name.back() != '\0') return false;
    listing.remove_prefix(sizeof head + head.name_len);
  }
  return true;
}

Reply ListingReply(unsigned char header_length, CpdPacket* request, PathRequest<DirHead>* in,
                   const Listing& listing) {
  in->head.buf_len = listing.buf_len;
  in->head.entry_count = static_cast<uint16_t>(listing.entry_count);
  in->StoreHead();
  Reply reply(request, header_length, sizeof in->head + in->path.size() + listing.buf_len);
  reply.Append(in->head).Append(in->path).Append(listing.bytes());
  return reply;
}

}  // namespace

// 107: head, path -> head with the listing's length and count, path, listing. The listing has no
// bytes, thus not even "." and "..", when the directory cannot be listed.
int64_t UDiskOperator::dir_read(unsigned char header_length, CpdPacket* request) {
  PathRequest<DirHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  if (HasNul(in.path)) {
    UDISK_ERROR("dir_read dir not match\n");
    return -1;
  }
  Listing listing;
  mFileManager->UdiskReadDir(in.full_path.c_str(), &listing);
  return Send(ListingReply(header_length, request, &in, listing).Take());
}

// 121: head, path, cached listing -> as 107, but no reply when nothing changed.
int64_t UDiskOperator::check_dir(unsigned char header_length, CpdPacket* request) {
  PathRequest<DirHead> in(request, CopyMountPoint());
  std::string_view cache;
  if (!in.ok() || !in.rest.ReadBytes(in.head.buf_len, &cache)) return Dropped();
  UDISK_DEBUG("cache_file_count:%d", int{in.head.entry_count});
  UDISK_DEBUG("check_dir dir: %s, size:%d\n", in.relative_path(), int{in.head.path_length});
  if (HasNul(in.path)) {
    UDISK_ERROR("check dir not match\n");
    return -1;
  }
  UDISK_DEBUG("check dir full path: %s\n", in.full_path.c_str());
  Listing listing;
  mFileManager->UdiskReadDir(in.full_path.c_str(), &listing);
  // The fresh listing is checked, too: it has fewer entries than it counts if the directory changed
  // between the two passes of UdiskReadDir.
  if (WalksCleanly(cache, in.head.entry_count) &&
      WalksCleanly(listing.bytes(), static_cast<int>(listing.entry_count)) &&
      compare_cache(in.head.entry_count, static_cast<int>(listing.entry_count), cache.data(),
                    listing.buf) == 1) {
    UDISK_DEBUG("========== not update==========");
    return -1;
  }
  Reply reply = ListingReply(header_length, request, &in, listing);
  UDISK_DEBUG("check_dir send back size: %d\n", reply.capacity());
  return Send(reply.Take());
}

int UDiskOperator::compare_cache(int cache_count, int dir_count, const void* cached,
                                 const void* current) {
  if (cache_count != dir_count) return 0;
  // The current entries, sorted by name; equal names stay in the order of the listing.
  const auto count = static_cast<size_t>(std::max(dir_count, 0));
  std::vector<ListedEntry> entries;
  entries.reserve(count);
  const char* at = static_cast<const char*>(current);
  while (entries.size() < count) entries.push_back(NextEntry(&at));
  std::ranges::stable_sort(entries, {}, &ListedEntry::name);

  // Repeated names give more matches than there are entries, up to the square of their number. More
  // than this many prove a change, so the count stops there.
  const int most_matches = std::max(cache_count, 1 << 17);
  int matches = 0;
  at = static_cast<const char*>(cached);
  for (size_t i = 0; i < count; ++i) {
    const ListedEntry entry = NextEntry(&at);
    const int matches_before = matches;
    for (auto candidate = std::ranges::lower_bound(entries, entry.name, {}, &ListedEntry::name);
         candidate != entries.end() && candidate->name == entry.name; ++candidate) {
      // Contract: only size and seconds count; a change of mode, owner or nanoseconds does not.
      if (candidate->size != entry.size || candidate->seconds != entry.seconds) {
        UDISK_DEBUG("not found dirFileName:%s,cacheFileName:%s", candidate->name.data(),
                    entry.name.data());
        return 0;
      }
      UDISK_DEBUG("found dirFileName:%s,cacheFileName:%s", candidate->name.data(),
                  entry.name.data());
      if (++matches > most_matches) break;
    }
    if (matches > most_matches) break;
    if (matches == matches_before) {
      UDISK_DEBUG("found name:%s,not found", entry.name.data());
      return 0;
    }
  }
  if (matches == cache_count) return 1;
  UDISK_DEBUG("add new file");
  return 0;
}

// ---- Names: 114 to 118 ----
//
// Each may change free space even when it fails, so all set `modified`. Contract: only 114, 115 and
// 118 trace their failures.

// 114: head, path -> head with the result, and the local path cut to the request path's length.
int64_t UDiskOperator::make_dir(unsigned char header_length, CpdPacket* request) {
  PathRequest<MakeDirHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("make dir full path: %s,path len:%d, mode: %d\n", in.full_path.c_str(),
              int{in.head.path_length}, int{in.head.mode});

  in.head.result = mFileManager->UdiskMakeDir(in.full_path.c_str(), in.head.mode, 1);
  if (in.head.result != 0) TraceError(Located("udisk make_dir fail"));
  UDISK_DEBUG("make dir resule: %d", int{in.head.result});

  // Contract: the reply echoes the beginning of the local path, not the path that was sent.
  in.path = std::string_view(in.full_path).substr(0, in.path.size());
  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("make dir send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 115: head, path -> head with the result, path.
int64_t UDiskOperator::remove_dir(unsigned char header_length, CpdPacket* request) {
  PathRequest<RemoveHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("remove dir full path: %s,name\n", in.full_path.c_str());

  in.head.result = static_cast<int16_t>(mFileManager->UdiskDeleteDirectory(in.full_path.c_str()));
  if (in.head.result != 0) TraceError(Located("udisk remove_dir fail"));
  UDISK_DEBUG("remove dir resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("remove dir send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 116: head, existing path, new path -> head with the result, both paths. Makes a hard link.
int64_t UDiskOperator::set_link(unsigned char header_length, CpdPacket* request) {
  TwoPathsRequest in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("set link full from path: %s, to path: %s\n", in.full_path.c_str(),
              in.new_full_path.c_str());

  in.head.result = mFileManager->UdiskLink(in.full_path.c_str(), in.new_full_path.c_str());
  UDISK_DEBUG("set link resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("set link send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 117: head, path -> head with the result, path.
int64_t UDiskOperator::set_unlink(unsigned char header_length, CpdPacket* request) {
  PathRequest<RemoveHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("set unlink full from path: %s\n", in.full_path.c_str());

  in.head.result = static_cast<int16_t>(mFileManager->UdiskUnlink(in.full_path.c_str()));
  if (in.head.result < 0) UDISK_ERROR("set unlink error: %s", std::strerror(errno));
  UDISK_DEBUG("set unlink resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("set unlink send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

// 118: head, old path, new path -> head with the result, both paths. Replaces an existing file.
int64_t UDiskOperator::set_rename(unsigned char header_length, CpdPacket* request) {
  TwoPathsRequest in(request, CopyMountPoint());
  if (!in.ok()) return Dropped();
  UDISK_DEBUG("set rename full from path: %s, to path: %s\n", in.full_path.c_str(),
              in.new_full_path.c_str());

  in.head.result = mFileManager->UdiskRename(in.full_path.c_str(), in.new_full_path.c_str());
  if (in.head.result != 0) TraceError(Located("udisk set_rename fail"));
  UDISK_DEBUG("set rename resule: %d", int{in.head.result});

  Reply reply = EchoReply(header_length, request, &in);
  UDISK_DEBUG("set rename send back size:%d", reply.capacity());
  modified = 1;
  return Send(reply.Take());
}

}  // namespace cpd
