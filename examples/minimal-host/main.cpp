// A host in one file: loads the driver module, plays the remote side of a disk, and prints a file.
//
//   minimal-host DISK FILE     for example: minimal-host /media/me/STICK photos/cat.jpg
#include <dlfcn.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "cpd/device.h"
#include "cpd/driver.h"
#include "cpd/log.h"
#include "cpd/packet.h"
#include "cpd/tracer.h"

extern "C" void tesselLogPrint(int, int, const char*, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  (void)std::vfprintf(stderr, format, arguments);
  std::cerr << '\n';
  va_end(arguments);
}
cpd::CpdTracer* cpd::CpdTracer::GetInstance() {
  static CpdTracer tracer;
  return &tracer;
}

namespace {

constexpr uint8_t kDeviceId = 1;
using Packet = std::unique_ptr<cpd::CpdPacket>;
using Fields = std::map<std::string, std::string>;

class Base : public cpd::CpdDeviceBase {
 public:
  explicit Base(const std::filesystem::path& disk) {
    std::ostringstream json;
    json << R"({"name": "Stick", "readOnly": 1, "label": )" << std::quoted(disk.filename().string())
         << R"(, "letter": )" << std::quoted((disk.parent_path() / "").string()) << "}";
    parameters_ = json.str();
  }
  std::string GetDeviceParams() override { return parameters_; }
  void TraceEvent(const std::string&, const std::string& event, const Fields&) override {
    std::cerr << "event " << event << '\n';
  }
  void TraceEventDetail(const std::string&, const std::string&, const std::string&,
                        const Fields&) override {}
  std::shared_ptr<cpd::CpdPathFilter> GetPathFilter() override { return nullptr; }

 private:
  std::string parameters_;
};

class Device : public cpd::CpdDevice {
 public:
  explicit Device(const std::filesystem::path& disk) : base_(std::make_shared<Base>(disk)) {}
  std::shared_ptr<cpd::CpdDeviceBase> getDevBase() override { return base_; }
  int GetDevId() override { return kDeviceId; }
  int SendPacket(Packet packet, int) override {
    const std::lock_guard lock(mutex_);
    packets_.push_back(std::move(packet));
    arrived_.notify_one();
    return 0;
  }
  void ReportReadFail(const std::string&) override {}

  // The module's next packet with this command; those before it are dropped.
  Packet Await(uint16_t command) {
    std::unique_lock lock(mutex_);
    while (arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return !packets_.empty(); })) {
      Packet packet = std::move(packets_.front());
      packets_.pop_front();
      if (packet->header->cmd == command) return packet;
    }
    throw std::runtime_error("the module sends nothing");
  }

 private:
  std::shared_ptr<Base> base_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Packet> packets_;  // guarded by mutex_
};

template <class Head>
Packet MakePacket(uint16_t command, const Head& head, const std::string& text) {
  Packet packet(new cpd::CpdPacket(cpd::CPD_PACKET_HEADER_SIZE + sizeof head + text.size()));
  packet->InitHeader(kDeviceId, command, /*requestId=*/1);
  packet->AppendPayload(&head, sizeof head);
  packet->AppendPayload(text.data(), text.size());
  return packet;
}

struct CloseAndDelete {
  void operator()(cpd::CpdDriver* driver) const {
    driver->Close(0);
    std::default_delete<cpd::CpdDriver>()(driver);
  }
};

void PrintFile(const std::filesystem::path& disk, const std::string& path) {
  setenv("TESSEL_CPD_CLIENT_CONFINE", "1", 1);
  void* const module = dlopen(CPD_UDISK_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) throw std::runtime_error(dlerror());
  auto* const descriptor = static_cast<cpd::CpdDriverModule*>(dlsym(module, "CPD_DRV_MODULE"));
  if (descriptor == nullptr) throw std::runtime_error("not a driver module: " CPD_UDISK_MODULE);
  Device device(disk);  // must outlive the driver
  const std::unique_ptr<cpd::CpdDriver, CloseAndDelete> driver(descriptor->open(&device, ""));
  if (driver == nullptr) throw std::runtime_error("the module cannot open the disk");

  device.Await(100);                  // the disk's announcement
  const uint16_t lengths[] = {0, 2};  // of the label and of the drive's name
  driver->onEvent(MakePacket(200, lengths, "U:"), 0);

  struct ReadHead {
    int64_t offset;
    uint32_t unused1, size, path_length, unused2;
  } answer, head = {0, 0, 65536, static_cast<uint32_t>(path.size()), 0};
  do {
    driver->onEvent(MakePacket(105, head, path), 0);
    const Packet reply = device.Await(105);
    std::memcpy(&answer, reply->GetPayload(), sizeof answer);
    const uint8_t* const data = reply->GetPayload() + sizeof answer + path.size();
    std::cout.write(reinterpret_cast<const char*>(data), answer.size);
    head.offset += answer.size;
  } while (answer.size != 0);  // the end, or an error: the protocol does not tell
  if (head.offset == 0) throw std::runtime_error(path + " cannot be read, or is empty");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) throw std::runtime_error("usage: minimal-host DISK FILE");
  PrintFile(std::filesystem::canonical(argv[1]), std::string("/") + argv[2]);
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception& error) {
  std::cerr << "minimal-host: " << error.what() << '\n';
  return 1;
}
