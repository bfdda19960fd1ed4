// The keys of trace fields, one constant per key, shared by the host and its drivers.
#pragma once

namespace cpd::trace_keys {

inline constexpr char kCpdModule[] = "cpdModule";
inline constexpr char kCpdVersion[] = "cpdVersion";
inline constexpr char kEventType[] = "eventType";
inline constexpr char kEvent[] = "event";
inline constexpr char kErrorCode[] = "errorCode";
inline constexpr char kMessage[] = "message";
inline constexpr char kVid[] = "vid";
inline constexpr char kPid[] = "pid";
inline constexpr char kVmid[] = "vmid";
inline constexpr char kProductName[] = "productName";
inline constexpr char kDriverName[] = "driverName";
inline constexpr char kRedirtype[] = "redirtype";
inline constexpr char kTesselPolicy[] = "tesselPolicy";
inline constexpr char kType[] = "type";
inline constexpr char kClass[] = "class";
inline constexpr char kStatus[] = "status";
inline constexpr char kLocalPolicy[] = "localPolicy";
inline constexpr char kRemotePolicy[] = "remotePolicy";
inline constexpr char kAutoconnect[] = "autoconnect";
inline constexpr char kTurbousb[] = "turbousb";
inline constexpr char kBiz[] = "biz";
inline constexpr char kStep[] = "step";
inline constexpr char kTimeMs[] = "TimeMs";
inline constexpr char kStartTs[] = "startTs";
inline constexpr char kSuccess[] = "success";
inline constexpr char kContext[] = "context";
inline constexpr char kDesktopId[] = "desktopId";
inline constexpr char kImageVersion[] = "imageVersion";
inline constexpr char kRedirTypeList[] = "redirTypeList";
inline constexpr char kDeviceType[] = "deviceType";
inline constexpr char kCredibility[] = "credibility";
inline constexpr char kFlowLevel[] = "flowLevel";
inline constexpr char kFlowName[] = "flowName";
inline constexpr char kCpdContext[] = "cpdContext";
inline constexpr char kProcessId[] = "processId";
inline constexpr char kVmContextId[] = "vmContextId";
inline constexpr char kPrinterRedirType[] = "printerRedirType";
inline constexpr char kCpdMounted[] = "cpd.mounted";
inline constexpr char kMounted[] = "mounted";

}  // namespace cpd::trace_keys
