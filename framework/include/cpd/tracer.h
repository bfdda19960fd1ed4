// The host's tracer. The host program defines it; a driver module only asks for it.
#pragma once

namespace cpd {

class CpdTracer {
 public:
  /// The host's one tracer. Asking for it, from any thread, makes the host set it up.
  static CpdTracer* GetInstance();
};

}  // namespace cpd
