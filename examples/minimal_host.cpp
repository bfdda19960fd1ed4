#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "cpd/device.h"
#include "cpd/driver.h"
#include "cpd/packet.h"
#include "cpd/tracer.h"

extern "C" void tesselLogPrint(int, int, const char*, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vfprintf(stderr, format, arguments), fputc('\n', stderr);
  va_end(arguments);
}
cpd::CpdTracer* cpd::CpdTracer::GetInstance() {
  static CpdTracer tracer;
  return &tracer;
}

using Fields = std::map<std::string, std::string>;
struct Base : cpd::CpdDeviceBase {
  std::string GetDeviceParams() override {
    return R"({"letter": "/media/me/", "label": "STICK", "name": "Stick", "readOnly": 0})";
  }
  void TraceEvent(const std::string&, const std::string& event, const Fields&) override {
    printf("event %s\n", event.c_str());
  }
  void TraceEventDetail(const std::string&, const std::string&, const std::string&,
                        const Fields&) override {}
  std::shared_ptr<cpd::CpdPathFilter> GetPathFilter() override { return nullptr; }
};
struct Device : cpd::CpdDevice {
  std::shared_ptr<cpd::CpdDeviceBase> getDevBase() override { return base; }
  int GetDevId() override { return 1; }
  int SendPacket(std::unique_ptr<cpd::CpdPacket> packet, int) override {
    return printf("to the remote side: %d\n", packet->header->cmd), 0;
  }
  void ReportReadFail(const std::string&) override {}
  std::shared_ptr<Base> base = std::make_shared<Base>();
};

int main() {
  Device device;
  void* module = dlopen("./udisk-redir.so", RTLD_NOW);
  if (!module) return fprintf(stderr, "%s\n", dlerror()), 1;
  auto* descriptor = static_cast<cpd::CpdDriverModule*>(dlsym(module, "CPD_DRV_MODULE"));
  std::unique_ptr<cpd::CpdDriver> driver(descriptor->open(&device, ""));
  sleep(1);  // a real host calls driver->onEvent with each packet from the remote side
  driver->Close(0);
}
