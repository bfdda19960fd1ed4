// The host's tracer. The host program defines it; a driver module only calls GetInstance.
#pragma once

namespace cpd {

class CpdTracer {
 public:
  /// The host's only tracer, which the first call sets up. Callable from any thread.
  static CpdTracer* GetInstance();
};

}  // namespace cpd
