#include "alarmd/AlarmMetrics.h"

#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "alarmd/platform/DeviceMetrics.h"
#include "alarmd/platform/Identity.h"

namespace alarmd {

namespace {

// Not string objects: threads may still count metrics while the process exits.
constexpr const char* kDeviceTypeIdIDME = "devicetype";
constexpr const char* kDeviceSerialNumberIDME = "dsn";

constexpr unsigned int IDENTITY_CAPACITY = 32;

/// Reads one identity value; the status is 0 on success, and the value is empty otherwise.
int readIdentity(const char* key, std::string& value) {
    char buffer[IDENTITY_CAPACITY + 1] = {};
    const int status = idme_get_property(key, buffer, IDENTITY_CAPACITY);
    if (status == 0) {
        value = buffer;
    }
    return status;
}

bool record(const char* program, const char* source, const std::string& name, int value,
            GHashTable* dims) {
    return record_device_metric(program, source, name.c_str(), value, dims, 1, 0) == 0;
}

}  // namespace

bool AlarmMetrics::emit(const std::string& name, int value, GHashTable* dims) const {
    const bool recorded = record(METRICS_PROGRAM_NAME, METRICS_SOURCE_NAME, name, value, dims);
    const bool forwarded =
        record(KX_FORWARDING_PROGRAM_NAME, KX_FORWARDING_SOURCE_NAME, name, value, dims);

    if (forwarded) {
        // Each value stands one label late; log readers rely on it.
        LOGI(
            "AlarmMetrics:deviceMetricKXForwarding:programName=%s,sourceName=%s:metricName=%s,metricValue=%s",
            "", KX_FORWARDING_PROGRAM_NAME, KX_FORWARDING_SOURCE_NAME, name.c_str());
    } else {
        LOGE(
            "AlarmMetrics:emit:reason=deviceMetricKXForwardingFailed,programName=%s,sourceName=%s,metricName=%s,metricValue=%d:",
            KX_FORWARDING_PROGRAM_NAME, KX_FORWARDING_SOURCE_NAME, name.c_str(), value);
    }

    if (recorded) {
        LOGI(
            "AlarmMetrics:recordAlarmStateMetric:programName=%s,sourceName=%s,metricName=%s,metricValue=%d:",
            METRICS_PROGRAM_NAME, METRICS_SOURCE_NAME, name.c_str(), value);
    } else {
        LOGE(
            "AlarmMetrics:emit:reason=recordDeviceMetricFailed,programName=%s,sourceName=%s,metricName=%s,metricValue=%d:",
            METRICS_PROGRAM_NAME, METRICS_SOURCE_NAME, name.c_str(), value);
    }
    return recorded;
}

bool AlarmMetrics::emitMetric(const std::string& name, int value, GHashTable* dims) const {
    return emit(name, value, dims);
}

void AlarmMetrics::emitErrorMetric(const std::string& name) const {
    if (name.empty()) {
        LOGE("AlarmMetrics:emitErrorCallMetric:reason=emitErrorCallMetricFailed,:");
        return;
    }
    emit(name, 1, nullptr);
}

std::string AlarmMetrics::getDeviceTypeId() const {
    std::string value;
    const int status = readIdentity(kDeviceTypeIdIDME, value);
    if (status != 0) {
        LOGE("AlarmMetrics:getDeviceTypeId:reason=idmeGetDeviceTypeIdFailed,status=%d:", status);
    }
    return value;
}

std::string AlarmMetrics::getDeviceSerial() const {
    std::string value;
    const int status = readIdentity(kDeviceSerialNumberIDME, value);
    if (status != 0) {
        LOGE("AlarmMetrics:getDSNFailed:reason=idmeGetDSNFailed,status=%d:", status);
    }
    return value;
}

}  // namespace alarmd
