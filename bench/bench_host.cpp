#include "bench_host.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <utility>

#include "cpd/log.h"
#include "cpd/tracer.h"
#include "support/requests.h"
#include "udisk.h"

// ---- Functions that a driver module imports ----

namespace {
std::atomic<bool> g_print_errors = true;
}  // namespace

extern "C" void tesselLogPrint(int /*channel*/, int level, const char* /*tag*/, const char* format,
                               ...) {
  constexpr int kError = 7;
  if (level < kError || !g_print_errors.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, format);
  (void)std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  (void)std::fputc('\n', stderr);
}

namespace cpd {

CpdTracer* CpdTracer::GetInstance() {
  static CpdTracer tracer;
  return &tracer;
}

}  // namespace cpd

namespace cpd::bench {

void PrintErrors(bool print) { g_print_errors = print; }

// ---- Device ----

namespace {

class BenchBase : public CpdDeviceBase {
 public:
  BenchBase(const std::string& root, std::shared_ptr<CpdPathFilter> filter)
      : params_(R"({"letter":")" + root + R"(","label":"","name":"bench","readOnly":0})"),
        filter_(std::move(filter)) {}

  std::string GetDeviceParams() override { return params_; }
  void TraceEvent(const std::string& /*id*/, const std::string& /*event*/,
                  const std::map<std::string, std::string>& /*fields*/) override {}
  void TraceEventDetail(const std::string& /*id*/, const std::string& /*detail*/,
                        const std::string& /*event*/,
                        const std::map<std::string, std::string>& /*fields*/) override {}
  std::shared_ptr<CpdPathFilter> GetPathFilter() override { return filter_; }

 private:
  const std::string params_;
  const std::shared_ptr<CpdPathFilter> filter_;
};

}  // namespace

BenchDevice::BenchDevice(const std::string& root, std::shared_ptr<CpdPathFilter> filter)
    : base_(std::make_shared<BenchBase>(root, std::move(filter))) {}

int BenchDevice::GetDevId() { return test::kDeviceId; }

int BenchDevice::SendPacket(std::unique_ptr<CpdPacket> packet, int /*flags*/) {
  sent_.Put(std::move(packet));
  return 0;
}

void BenchDevice::ReportReadFail(const std::string& /*path*/) {}

// ---- Driver ----

std::shared_ptr<CpdPacket> BandwidthEvent(uint32_t kbps) {
  auto event = std::make_shared<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof kbps);
  event->InitHeader(test::kDeviceId, kBusReadBandwidth, 0);
  event->AppendPayload(&kbps, sizeof kbps);
  return event;
}

BenchDriver::BenchDriver(const std::string& root, bool confined) : device_(root) {
  setenv("TESSEL_CPD_CLIENT_CONFINE", confined ? "1" : "0", 1);  // read when a driver opens
  driver_.reset(udisk_open(&device_, ""));
  if (driver_ == nullptr) throw std::runtime_error("the driver does not open");
  while (TakeReply()->header->cmd != kMountRemote) {  // the last packet at its start
  }
}

BenchDriver::~BenchDriver() { driver_->Close(0); }

void BenchDriver::Send(std::unique_ptr<CpdPacket> request) {
  driver_->onEvent(std::move(request), 0);
}

void BenchDriver::Send(std::string_view request) { Send(test::PacketOf(request)); }

}  // namespace cpd::bench
