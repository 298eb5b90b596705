#include "alarmd/AlarmMetrics.h"
#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

class AlarmMetricsTest : public Fixture {
  protected:
    AlarmMetrics m_metrics;
};

TEST_F(AlarmMetricsTest, EachIsRecordedForTheCollectorWhichDecidesAndThenForwarded) {
    device.fail("METRICS_KX");
    EXPECT_TRUE(m_metrics.emitMetric("Late", 0, nullptr));
    device.fail("metrics-coll");
    EXPECT_FALSE(m_metrics.emitMetric("Set", 1, nullptr));
    m_metrics.emitErrorMetric("Failure");
    m_metrics.emitErrorMetric("");
    const std::string program = "METRICS_KX_FORWARDING";
    const std::string stream = "7d2e9a14-c35b-4f08-b1e6-3a8c5f0d2b71/1/00470000";
    const std::string forwarded = ", " + program + " " + stream + " ";
    EXPECT_EQ(course("METRICS|metrics"), "Late=0" + forwarded + "Late=0, Set=1" + forwarded
                                             + "Set=1, Failure=1" + forwarded + "Failure=1");
    EXPECT_EQ(device.calls("log E"),
              Texts({"log E AlarmMetrics:emit:reason=deviceMetricKXForwardingFailed,programName="
                         + program + ",sourceName=" + stream + ",metricName=Late,metricValue=0:",
                     "log E AlarmMetrics:emit:reason=recordDeviceMetricFailed,programName=metrics-"
                     "collector,sourceName=alarmd,metricName=Set,metricValue=1:",
                     "log E AlarmMetrics:emitErrorCallMetric:reason=emitErrorCallMetricFailed,:"}));
    EXPECT_TRUE(logged("I AlarmMetrics:deviceMetricKXForwarding:programName=,sourceName=" + program
                       + ":metricName=" + stream + ",metricValue=Set"));
}

TEST_F(AlarmMetricsTest, IdentityIsReadAnewAndWholeUpTo32Characters) {
    EXPECT_EQ(m_metrics.getDeviceTypeId() + m_metrics.getDeviceSerial(), "TYPE1SERIAL1");
    device.answer("identity dsn", std::string(32, 's'));
    EXPECT_EQ(m_metrics.getDeviceSerial(), std::string(32, 's'));
    device.answer("identity dsn", std::string(33, 's'));
    EXPECT_EQ(m_metrics.getDeviceSerial(), "");
    EXPECT_TRUE(logged("E AlarmMetrics:getDSNFailed:reason=idmeGetDSNFailed,status=1:"));
}

}  // namespace
}  // namespace alarmd
