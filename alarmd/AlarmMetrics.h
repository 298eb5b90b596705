/// Records each device metric twice: for the device's collector and for forwarding to the cloud.
#pragma once

#include <glib.h>

#include <string>

namespace alarmd {

/// Has no state; any thread, no lock, never waits. `dims` (text to text, null for none) stays the
/// caller's.
class AlarmMetrics {
  public:
    /// Records a metric; true when the collector's record succeeded. A failed forwarding is only
    /// logged.
    bool emitMetric(const std::string& name, int value, GHashTable* dims) const;

    /// Counts one failure; an empty name records nothing and is logged.
    void emitErrorMetric(const std::string& name) const;

    /// The device's type and serial number, read anew on each call; empty, and logged, when
    /// unavailable.
    std::string getDeviceTypeId() const;
    std::string getDeviceSerial() const;

  private:
    bool emit(const std::string& name, int value, GHashTable* dims) const;
};

}  // namespace alarmd
