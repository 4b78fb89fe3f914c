#include "Host/Http/PrometheusText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace loopstore::host {
namespace {

TEST(PrometheusTextTest, EscapesAndFormatsAsTheTextFormatWants) {
    PrometheusText out;
    out.Family("loopstore_x_total", "counter", "Bytes\\written\nper track");
    out.Sample("loopstore_x_total", {{"track", "1"}, {"name", "gate \"n\"\\\n"}}, 12345678901234.0);
    out.Sample("loopstore_x_total", {}, 0.25);
    out.Family("loopstore_h_seconds", "histogram", "Latency");
    out.Histogram("loopstore_h_seconds", {{"route", "/a"}}, {0.005, 1}, {2, 3}, 1.5, 4);
    EXPECT_EQ(out.Text(),
              "# HELP loopstore_x_total Bytes\\\\written\\nper track\n"
              "# TYPE loopstore_x_total counter\n"
              "loopstore_x_total{track=\"1\",name=\"gate \\\"n\\\"\\\\\\n\"} 12345678901234\n"
              "loopstore_x_total 0.25\n"
              "# HELP loopstore_h_seconds Latency\n"
              "# TYPE loopstore_h_seconds histogram\n"
              "loopstore_h_seconds_bucket{route=\"/a\",le=\"0.005\"} 2\n"
              "loopstore_h_seconds_bucket{route=\"/a\",le=\"1\"} 3\n"
              "loopstore_h_seconds_bucket{route=\"/a\",le=\"+Inf\"} 4\n"
              "loopstore_h_seconds_sum{route=\"/a\"} 1.5\n"
              "loopstore_h_seconds_count{route=\"/a\"} 4\n");
    EXPECT_EQ(PrometheusText::Number(std::numeric_limits<double>::infinity()), "+Inf");
    EXPECT_EQ(PrometheusText::Number(std::nan("")), "NaN");
    EXPECT_EQ(PrometheusText::Number(0.1), "0.1");
    EXPECT_EQ(PrometheusText::Number(-3), "-3");
    EXPECT_EQ(PrometheusText::Number(1e300), "1e+300");
}

}  // namespace
}  // namespace loopstore::host
