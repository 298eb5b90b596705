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
    const std::string forwarded =
        ", METRICS_KX_FORWARDING 7d2e9a14-c35b-4f08-b1e6-3a8c5f0d2b71/1/00470000 ";
    EXPECT_EQ(course("METRICS|metrics"), "Late=0" + forwarded + "Late=0, Set=1" + forwarded
                                             + "Set=1, Failure=1" + forwarded + "Failure=1");
    EXPECT_EQ(device.calls("log E AlarmMetrics:").size(), 3U);
}

TEST_F(AlarmMetricsTest, IdentityIsReadAnewAndWholeUpTo32Characters) {
    for (const std::size_t size : {7U, 32U, 33U}) {
        device.answer("identity dsn", std::string(size, 's'));
        EXPECT_EQ(m_metrics.getDeviceSerial(), std::string(size == 33 ? 0 : size, 's'));
    }
}

}  // namespace
}  // namespace alarmd
