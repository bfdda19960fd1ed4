// The life of a request: the driver's worker thread takes it off the queue and calls EventHandle;
// the command table below names its handler; the handler reads head and path (request.h), joins the
// path to the mount point, makes one call of the file layer (file_manager_linux.h), writes the
// result into the head, and sends head and path back (reply.h). The layouts of all heads stand in
// wire.h. A request that reaches past its own buffer is dropped with one Error line.
//
// Everything here runs on that worker thread, but for what the class comment names.

#include "operator.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
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

struct CommandRow {
  uint16_t code;
  const char* name;
  int64_t (UDiskOperator::*handler)(unsigned char header_length, CpdPacket* request);
  unsigned char header_length;
};

constexpr unsigned char kHeader = CPD_PACKET_HEADER_SIZE;

// In code order. A row without a handler is accepted and ignored.
constexpr std::array kCommands = std::to_array<CommandRow>({
    {kMountRemote, "mount_remote", &UDiskOperator::mount_remote, kHeader},
    {kUmountRemote, "umount_remote", &UDiskOperator::umount_remote, kHeader},
    {kGetFileAttr, "get_file_attr", &UDiskOperator::get_file_attr, kHeader},
    {kFileOpen, "file_open", nullptr, 0},
    {kFileRead, "file_read", &UDiskOperator::file_read, kHeader},
    {kDirRead, "dir_read", &UDiskOperator::dir_read, kHeader},
    {kGetXattr, "get_xattr", &UDiskOperator::get_xattr, kHeader},
    {kGetStatvfs, "get_statvfs", &UDiskOperator::get_statvfs, kHeader},
    {kCheckDir, "check_dir", &UDiskOperator::check_dir, kHeader},
    {kSmallFileNotice, "small_file_notice", nullptr, 0},
    {kMountResponse, "mount_response", &UDiskOperator::mount_response, 0},
});

}  // namespace

int UDiskOperator::EventHandle(std::unique_ptr<CpdPacket> packet) {
  if (packet == nullptr || packet->buffer == nullptr || packet->header == nullptr) return 0;
  const auto row = std::ranges::lower_bound(kCommands, packet->header->cmd, {}, &CommandRow::code);
  if (row == kCommands.end() || row->code != packet->header->cmd) return 0;
  if (row->handler == nullptr) return 0;
  try {
    (this->*row->handler)(row->header_length, packet.get());
  } catch (const std::exception& error) {  // out of memory: the request fails, the worker goes on
    LOG_ERROR("%s failed: %s", row->name, error.what());
  }
  return 0;
}

int UDiskOperator::BusEventHandle(const std::shared_ptr<CpdPacket>& packet) {
  if (packet == nullptr || packet->buffer == nullptr || packet->header == nullptr) return 0;
  const uint16_t cmd = packet->header->cmd;
  uint32_t announced = 0;
  if (packet->ReadUint32(&announced) != 0 || cmd != kBusReadBandwidth) return 0;
  lastBwUpdateMs = static_cast<int64_t>(getCurrentTime());
  const auto now = static_cast<int64_t>(getCurrentTime());
  bwEventMs = now;
  // The announced value, not the raised one, is compared: a rate below 1000 counts as a change.
  if (now - lastBwTraceMs >= 5001 && announced != readBwKbps) {
    TraceCpdDevice("UDISK_READ_BW_INFO", mDevice, true,
                   "Udisk read bwinfo:" + std::to_string(announced), "", "");
    LOG_DEBUG("busEventHandle cmd: %d, paylaodSize: %d,requestId:%u bw:%d\n", cmd,
              static_cast<int>(packet->PayloadSize()), uint32_t{packet->header->requestId},
              static_cast<int>(announced));
    lastBwTraceMs = now;
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
  LOG_DEBUG("[UDisk] throttle mode=%s, FORCE_BW=%s", legacyThrottle ? "LEGACY" : "TOKEN_BUCKET",
            force != nullptr ? force : "not set");
  mFileManager = std::make_unique<FileManagerLinux>();
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

int UDiskOperator::GetDeviceId() { return mDevice != nullptr ? mDevice->GetDevId() : 0; }

std::string UDiskOperator::GetRemoteMountPoint() {
  std::string drive = GetDrvName();
  LOG_DEBUG("remote mMountDrive:%s", drive.c_str());
  return drive;
}

std::string UDiskOperator::GetLocalMountPoint() {
  std::string mount_point = CopyMountPoint();
  LOG_DEBUG("local mMountDrive:%s", mount_point.c_str());
  return mount_point;
}

int UDiskOperator::SetRootPath(const char* letter, const char* label) {
  bool both = letter != nullptr && label != nullptr;
  if (both && std::strlen(letter) + std::strlen(label) >= sizeof mMountPoint) {
    LOG_ERROR("letter and label are too long: %zu", std::strlen(letter) + std::strlen(label));
    both = false;
  }
  if (!both) {
    const std::lock_guard lock(mLock);
    std::memset(mMountPoint, 0, sizeof mMountPoint);
    mVolumes.clear();
    return -1;
  }
  const std::shared_ptr<VolumeRecord> record(
      static_cast<VolumeRecord*>(std::calloc(1, sizeof(VolumeRecord))),
      [](VolumeRecord* block) { std::free(block); });
  if (record == nullptr) throw std::bad_alloc();
  std::memcpy(record->label, label, std::min(std::strlen(label), sizeof record->label));
  const std::string mount_point = std::string(letter) + label;
  {
    const std::lock_guard lock(mLock);
    std::memset(mMountPoint, 0, sizeof mMountPoint);
    mount_point.copy(mMountPoint, sizeof mMountPoint - 1);
  }
  LOG_DEBUG("letter: %s, mMountPoint: %s, label: %s\n", letter, mount_point.c_str(), label);
  LOG_DEBUG("==============letter:%s\n", mount_point.c_str());
  // Outside the lock: a disk that hangs must not hold back who only asks for the mount point.
  mFileManager->UdiskGetStatvfs(mount_point.c_str(), &record->stat);
  const std::lock_guard lock(mLock);
  mVolumes.push_back(record);
  return 0;
}

// ---- What all handlers use ----

uint64_t getCurrentTime() {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

std::string UDiskOperator::CopyMountPoint() {
  const std::lock_guard lock(mLock);
  return mMountPoint;
}

int64_t UDiskOperator::Send(std::unique_ptr<CpdPacket> reply) {
  if (reply->header == nullptr || mDevice == nullptr) return -1;
  return mDevice->SendPacket(std::move(reply), -1);
}

namespace {

int64_t Dropped(const char* handler) {
  LOG_ERROR("%s dropped: the request reaches past its buffer", handler);
  return -1;
}

/// A trace message: where it comes from, then the text.
std::string Located(std::string_view text, const char* function = __builtin_FUNCTION(),
                    int line = __builtin_LINE()) {
  return std::string("[") + BaseName(__FILE__) + " " + function + "(" + std::to_string(line) +
         ")] " + std::string(text);
}

/// A listing and its buffer, as in a directory that cannot be opened until UdiskReadDir fills it.
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
  // The two callers apply the rules in opposite order on purpose.
  if (kind == BulkRead::kFile) {
    lastReadMs = now;
    force(now);
    drop_stale();
  } else {
    drop_stale();
    force(static_cast<int64_t>(getCurrentTime()));
  }
  if (readBwKbps == 0) return;
  if (legacyThrottle) {
    throttleLegacy(bytes, kind);
  } else {
    tokenBucket.updateRate(readBwKbps);
    tokenBucket.consume(bytes);
  }
}

void UDiskOperator::throttleLegacy(uint32_t bytes, BulkRead kind) {
  legacyBytes += bytes;
  const auto start = static_cast<int64_t>(getCurrentTime());
  // The allowances are those of 512 and 51.2 ms: do not align them with the periods.
  const bool slow = readBwKbps <= 10240;
  const int64_t period_ms = slow ? 500 : 50;
  const uint32_t allowance = slow ? (readBwKbps >> 3) << 9 : ((readBwKbps >> 3) << 10) / 20;
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

/// 16 hexadecimal digits from a generator that lives for this one id.
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
  std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(any(generator)));
  return id;
}

}  // namespace

void UDiskOperator::TraceCpdDevice(std::string event, CpdDevice* device, bool success,
                                   std::string message, const std::string& path,
                                   const std::string& /*extra*/) {
  if (device == nullptr || device->getDevBase() == nullptr) return;
  const std::string name = "LOCAL_" + event;
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

bool UDiskOperator::TraceFile(const char* event, bool success, const char* text,
                              const char* relative_path, const char* function, int line) {
  const std::shared_ptr<CpdDeviceBase> base = mDevice != nullptr ? mDevice->getDevBase() : nullptr;
  const std::shared_ptr<CpdPathFilter> filter = base != nullptr ? base->GetPathFilter() : nullptr;
  if (filter == nullptr) return false;
  const std::string path = relative_path;
  if (filter->MatchPath(path) == nullptr) return false;
  TraceCpdDevice(event, mDevice, success, Located(text, function, line), path, "");
  return true;
}

// ---- Mount handshake: 100, 101, 200 ----

namespace {

/// Where a disk of that name is mounted for the user that this process runs as.
std::string LocalMountPath(const std::string& name) {
  static std::mutex lock;  // getpwuid has one answer for the whole process
  const std::lock_guard guard(lock);
  const auto user = static_cast<uint16_t>(getuid());  // 16 bits of it: kept
  const struct passwd* entry = user != 0 ? getpwuid(user) : nullptr;
  const std::string home = entry != nullptr ? entry->pw_dir : "/media";
  return (home + "/" + name.c_str()).substr(0, 255);
}

}  // namespace

// 100: name -> the same. Makes the directory, yet leaves no mount point behind: the one in force is
// the service's, and comes with a label.
int64_t UDiskOperator::mount_remote(unsigned char header_length, CpdPacket* request) {
  PayloadReader in(request);
  MountHead head{};
  std::string_view name;
  if (!in.Read(&head) || !in.ReadBytes(head.name_length, &name)) return Dropped("mount_remote");

  const std::string path = LocalMountPath(std::string(name));
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    const int made = ::mkdir(path.c_str(), 0777);
    LOG_DEBUG("mkdir res: %d", made);
  }
  SetRootPath(path.c_str(), nullptr);  // clears the mount point: kept
  LOG_DEBUG("mount path: %s\n", path.c_str());

  Reply reply(request, header_length, sizeof head + name.size());
  return Send(reply.Append(head).Append(name).Take());
}

// 101: name -> the same. Nothing is removed from the disk.
int64_t UDiskOperator::umount_remote(unsigned char header_length, CpdPacket* request) {
  PayloadReader in(request);
  MountHead head{};
  std::string_view name;
  if (!in.Read(&head) || !in.ReadBytes(head.name_length, &name)) return Dropped("umount_remote");

  SetRootPath(nullptr, nullptr);
  LOG_DEBUG("umount path: %s\n", "");  // the path was always empty here: kept

  Reply reply(request, header_length, sizeof head + name.size());
  return Send(reply.Append(head).Append(name).Take());
}

// 200: drive, label -> no reply. The first length belongs to the second text.
int64_t UDiskOperator::mount_response(unsigned char /*header_length*/, CpdPacket* request) {
  LOG_DEBUG("vmId: %d", mVmId);
  PayloadReader in(request);
  MountResponseHead head{};
  std::string_view drive;
  std::string_view label;
  if (!in.Read(&head) || !in.ReadBytes(head.drive_length, &drive) ||
      !in.ReadBytes(head.label_length, &label)) {
    return Dropped("mount_response");
  }
  // Both end at a NUL, if they hold one.
  const std::string drive_text(drive.substr(0, drive.find('\0')));
  const std::string label_text(label.substr(0, label.find('\0')));
  LOG_DEBUG("mount_response header_len: %d, label: %s, drive: %s\n", static_cast<int>(sizeof head),
            label_text.c_str(), drive_text.c_str());
  {
    const std::lock_guard lock(mLock);
    mMountDrive = drive_text;
  }
  TraceCpdDevice("DEVICE_OPEN", mDevice, true,
                 Located("udisk create success RemoteMountPoint:" + drive_text), "", "");
  return -1;
}

// ---- Attributes: 102, 108, 113 ----

// 102: head, path -> head with the attribute length, path, udisk_stat. The only request of its
// family that refuses a NUL in its path, without a reply.
int64_t UDiskOperator::get_file_attr(unsigned char header_length, CpdPacket* request) {
  PathRequest<FileAttrHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped("get_file_attr");
  LOG_DEBUG("get_file_attr path name: %s, size:%d\n", in.relative_path(), int{in.head.path_length});
  if (HasNul(in.path)) {
    LOG_ERROR("get_file_attr path not match\n");
    return -1;
  }
  LOG_DEBUG("get_attr full path: %s\n", in.full_path.c_str());

  udisk_stat attributes{};
  const bool found = mFileManager->UdiskGetFileInformation(in.full_path.c_str(), &attributes) == 0;
  in.head.attr_length = found ? sizeof attributes : 0;
  in.StoreHead();

  Reply reply(request, header_length, sizeof in.head + in.path.size() + in.head.attr_length);
  reply.Append(in.head).Append(in.path);
  if (found) reply.Append(attributes);
  LOG_DEBUG("get_attr send back file size: %llu, buf_len:%d\n",
            static_cast<unsigned long long>(attributes.st_size), int{in.head.attr_length});
  return Send(reply.Take());
}

// 108: head, path, name -> head with zeros, name. There are no extended attributes; no file is
// looked at, and the path is not echoed.
int64_t UDiskOperator::get_xattr(unsigned char header_length, CpdPacket* request) {
  PathRequest<XattrHead> in(request, CopyMountPoint());
  std::string_view name;
  if (!in.ok() || !in.rest.ReadBytes(in.head.name_length, &name)) return Dropped("get_xattr");
  if (HasNul(name)) {
    LOG_ERROR("get_xattr name length not match\n");
    return -1;
  }
  LOG_DEBUG("get_xattr full path: %s\n", in.full_path.c_str());

  in.head.result = 0;
  in.head.value_length = 0;
  in.StoreHead();

  // Room for the path too, though it is not echoed: kept.
  Reply reply(request, header_length, sizeof in.head + in.path.size() + name.size());
  return Send(reply.Append(in.head).Append(name).Take());
}

// 113: head, path -> head, path, statistics. The path's first component picks the volumes by the
// beginning of their label. After a change all of them are refreshed and sent, else the first only:
// deliberately unlike.
int64_t UDiskOperator::get_statvfs(unsigned char header_length, CpdPacket* request) {
  const std::string mount_point = CopyMountPoint();
  PathRequest<StatvfsHead> in(request, mount_point);
  if (!in.ok()) return Dropped("get_statvfs");
  const std::string label(FirstComponent(in.relative_path()));
  LOG_DEBUG("get_statvfs file_name: %s, full path: %s,name len:%d, label: %s\n", in.relative_path(),
            in.full_path.c_str(), static_cast<int>(in.head.path_length), label.c_str());
  in.head.record_length = sizeof(udisk_statvfs);
  in.StoreHead();

  Reply reply(request, header_length, sizeof in.head + in.path.size() + sizeof(udisk_statvfs));
  const int capacity = reply.capacity();  // as made; several records grow it
  reply.Append(in.head).Append(in.path);
  for (const auto& volume : CopyVolumes()) {
    if (std::strncmp(volume->label, label.c_str(), label.size()) != 0) continue;
    if (modified == 0) {
      reply.Append(volume->stat);
      break;
    }
    // On the current mount point, not the record's own: kept.
    mFileManager->UdiskGetStatvfs(mount_point.c_str(), &volume->stat);
    reply.Append(volume->stat);
  }
  modified = 0;
  LOG_DEBUG("get_statvfs send back size:%d, buf len: %d", capacity,
            static_cast<int>(sizeof(udisk_statvfs)));
  return Send(reply.Take());
}

std::list<std::shared_ptr<VolumeRecord>> UDiskOperator::CopyVolumes() {
  const std::lock_guard lock(mLock);
  return mVolumes;
}

// ---- Data: 105 ----

// 105: head, path -> head with the bytes read, path, data. The data is read straight into the
// reply. A file that cannot be read is answered with 0 bytes and traced as a success.
int64_t UDiskOperator::file_read(unsigned char header_length, CpdPacket* request) {
  PathRequest<ReadHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped("file_read");
  throttleRead(in.head.size);

  const size_t before_data = sizeof in.head + in.path.size();
  std::optional<Reply> reply;
  const auto make_room = [&](int fd) {
    const int count =
        FileManagerLinux::Deliverable(fd, in.head.offset, static_cast<int>(in.head.size));
    reply.emplace(request, header_length, before_data + static_cast<size_t>(std::max(count, 0)));
    uint8_t* const room = reply->Room(before_data);
    return ReadRoom{room, room != nullptr ? count : 0};
  };
  uint32_t error = 0;
  int result = mFileManager->UdiskReadFile(in.full_path.c_str(), in.head.offset, &error,
                                           std::ref(make_room));
  const char* const path = in.relative_path();
  if (result == -1) {  // for a file layer that reports failure so; this one answers 0
    LOG_ERROR("file_read failed res: %d, \n", result);
    if (TraceFile("UDISK_READ_FILE_FAIL", false, "udisk readFile fail", path)) {
      mDevice->ReportReadFail(path);
    }
    result = 0;
  } else {
    TraceFile("UDISK_READ_FILE_SUCCESS", true, "udisk readFile success", path);
  }

  if (!reply) reply.emplace(request, header_length, before_data);
  in.head.size = static_cast<uint32_t>(result);
  in.StoreHead();
  reply->Append(in.head).Append(in.path).Commit(in.head.size);
  return Send(reply->Take());
}

// ---- Directories: 107, 121 ----

namespace {

/// What a change of an entry shows in.
struct ListedEntry {
  std::string_view name;  // up to its NUL
  int64_t size;
  int64_t seconds;  // of the modification time
};

/// The next entry of a listing that walks cleanly; advances `*at` behind it.
ListedEntry NextEntry(const char** at) {
  udisk_dir_entry head{};
  std::memcpy(&head, *at, sizeof head);
  const ListedEntry entry{*at + sizeof head, head.attributes.st_size,
                          head.attributes.st_mtim.tv_sec};
  *at += sizeof head + head.name_len;
  return entry;
}

/// Whether `listing` holds so many whole entries, each name with its NUL.
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

// 107: head, path -> head with the listing's length and count, path, listing. A directory that
// cannot be opened is answered like an empty one.
int64_t UDiskOperator::dir_read(unsigned char header_length, CpdPacket* request) {
  PathRequest<DirHead> in(request, CopyMountPoint());
  if (!in.ok()) return Dropped("dir_read");
  if (HasNul(in.path)) {
    LOG_ERROR("dir_read dir not match\n");
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
  if (!in.ok() || !in.rest.ReadBytes(in.head.buf_len, &cache)) return Dropped("check_dir");
  LOG_DEBUG("cache_file_count:%d", int{in.head.entry_count});
  LOG_DEBUG("check_dir dir: %s, size:%d\n", in.relative_path(), int{in.head.path_length});
  if (HasNul(in.path)) {
    LOG_ERROR("check dir not match\n");
    return -1;
  }
  LOG_DEBUG("check dir full path: %s\n", in.full_path.c_str());
  Listing listing;
  mFileManager->UdiskReadDir(in.full_path.c_str(), &listing);
  if (WalksCleanly(cache, in.head.entry_count) &&
      compare_cache(in.head.entry_count, static_cast<int>(listing.entry_count), cache.data(),
                    listing.buf) == 1) {
    LOG_DEBUG("========== not update==========");
    return -1;
  }
  Reply reply = ListingReply(header_length, request, &in, listing);
  LOG_DEBUG("check_dir send back size: %d\n", reply.capacity());
  return Send(reply.Take());
}

int UDiskOperator::compare_cache(int cache_count, int dir_count, const void* cached,
                                 const void* current) {
  if (cache_count != dir_count) return 0;
  // The current entries, chained by the hash of their names in the order of the listing.
  const auto count = static_cast<size_t>(std::max(dir_count, 0));
  std::vector<ListedEntry> entries;
  entries.reserve(count);
  const char* at = static_cast<const char*>(current);
  while (entries.size() < count) entries.push_back(NextEntry(&at));
  std::vector<size_t> chains(std::bit_ceil(count + 1), count);
  std::vector<size_t> next(count);
  const auto chain = [&](std::string_view name) -> size_t& {
    return chains[std::hash<std::string_view>{}(name) % chains.size()];
  };
  for (size_t i = count; i-- > 0;) next[i] = std::exchange(chain(entries[i].name), i);

  int matches = 0;
  at = static_cast<const char*>(cached);
  for (size_t i = 0; i < count; ++i) {
    const ListedEntry entry = NextEntry(&at);
    const int matches_before = matches;
    for (size_t other = chain(entry.name); other < count; other = next[other]) {
      const ListedEntry& candidate = entries[other];
      if (candidate.name != entry.name) continue;
      // Size and seconds only: a change of mode, owner or nanoseconds is deliberately not one.
      if (candidate.size != entry.size || candidate.seconds != entry.seconds) {
        LOG_DEBUG("not found dirFileName:%s,cacheFileName:%s", candidate.name.data(),
                  entry.name.data());
        return 0;
      }
      LOG_DEBUG("found dirFileName:%s,cacheFileName:%s", candidate.name.data(), entry.name.data());
      ++matches;
    }
    if (matches == matches_before) {
      LOG_DEBUG("found name:%s,not found", entry.name.data());
      return 0;
    }
  }
  if (matches == cache_count) return 1;
  LOG_DEBUG("add new file");
  return 0;
}

}  // namespace cpd
