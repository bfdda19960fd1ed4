// The host's objects for one redirected disk, as a driver module sees them.
// The order of the virtual operations is the order of their slots: binary contract, do not reorder.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace cpd {

class CpdPacket;

/// The result of CpdPathFilter::MatchPath. Only whether the pointer is empty matters.
class CpdPathMatch {
 public:
  virtual ~CpdPathMatch() = default;
};

/// Decides for which files reads and writes are traced. Called on the worker of each driver that
/// got it from GetPathFilter. Like SendPacket, it must not wait.
class CpdPathFilter {
 public:
  /// @param path  relative to the disk's mount point
  /// @return an empty pointer when the path is not to be traced
  virtual std::shared_ptr<CpdPathMatch> MatchPath(const std::string& path) = 0;
  virtual ~CpdPathFilter() = default;
};

/// The USB device of a redirected disk. All operations are callable from any thread.
class CpdDeviceBase {
 public:
  uint8_t bus = 0;
  uint8_t addr = 0;

  /// The disk's parameters, a JSON object: "letter" and "label" (joined, the disk's local path),
  /// "name" (for the remote side), and optionally "readOnly" (its low byte is announced; 0 =
  /// writable).
  virtual std::string GetDeviceParams() = 0;

  /// Records a trace event under a fresh 16-digit id.
  virtual void TraceEvent(const std::string& id, const std::string& event,
                          const std::map<std::string, std::string>& fields) = 0;

  /// As TraceEvent, with the path of a file as its detail.
  virtual void TraceEventDetail(const std::string& id, const std::string& detail,
                                const std::string& event,
                                const std::map<std::string, std::string>& fields) = 0;

  /// The filter for read and write traces; empty when nothing is to be traced.
  virtual std::shared_ptr<CpdPathFilter> GetPathFilter() = 0;
  virtual ~CpdDeviceBase() = default;
};

/// One redirected disk. The host keeps it alive until the driver is closed and destroyed.
/// All operations are callable from any thread. If one of them throws, the driver loses only the
/// request, event, trace or announcement for which it was called. Without its announcement, the
/// disk does not appear on the remote side until it is opened again.
class CpdDevice {
 public:
  /// Empty once the device is gone.
  virtual std::shared_ptr<CpdDeviceBase> getDevBase() = 0;

  /// The id that the device's packets carry in their header.
  virtual int GetDevId() = 0;

  /// Sends a packet to the remote side. The host may take it out of `packet`; otherwise the packet
  /// is destroyed when the call returns.
  /// Called on the driver's worker (for the first two packets: on its service thread). No later
  /// request is served while it runs, so it must not wait. It must not call Close, which
  /// would join the calling thread, nor delete the driver. The same holds for the trace operations
  /// of CpdDeviceBase. What comes back from the remote side must be handed to onEvent in a buffer
  /// of exactly the message's length; see there.
  /// @param flags  drivers pass -1
  /// @return the host's own result, 0 for success
  virtual int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) = 0;

  /// Tells the host that a traced file could not be read.
  /// @param path  relative to the disk's mount point
  virtual void ReportReadFail(const std::string& path) = 0;
  virtual ~CpdDevice() = default;
};

/// A peripheral of the host's plug-and-play code; opaque to drivers.
class PeriphDevice;

}  // namespace cpd
