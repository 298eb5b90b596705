/// Device metrics: counters for the metrics collector, and timed events. Every call sends one
/// datagram and never waits. Any thread.
#pragma once

#include <glib.h>

#include <string>

struct OipcHandleStruct;

/// Records one counter. `dimensions` maps text to text, or is null; it stays the caller's. The last
/// two arguments are reserved: 1 and 0. Non-zero when it could not be sent.
[[nodiscard]] int record_device_metric(const char* program, const char* source, const char* name,
                                       int value, GHashTable* dimensions, int reserved1,
                                       int reserved2);

namespace metrics {

/// A named point in time. Constructed before the bus is open, so it learns of it later.
class MetricTimeEvent {
  public:
    explicit MetricTimeEvent(std::string name);

    /// Nothing is emitted before this was called. Once, before other threads use the event.
    void setOipcHandle(OipcHandleStruct* handle);

    /// Sends the name, the monotonic clock's milliseconds and `text`. Failure is ignored.
    void emit(const std::string& text) const;

  private:
    std::string m_name;
    OipcHandleStruct* m_handle = nullptr;
};

}  // namespace metrics
