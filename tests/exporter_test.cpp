// The exporter's parts below HTTP: the exposition formats, the /probe query, probes of loopback
// responders, the metrics of a machine and of the sync status block, and the request handling
// (replies caught by the test instead of an HTTP connection).
#include <gtest/gtest.h>

#include <cstring>
#include <future>

#include "exporter/exporter.h"
#include "platform/net.h"
#include "tests/kr2_loopback.h"
#include "tests/shared_objects.h"

namespace {

constexpr MetricDef kTestGauge{"t_offset_seconds", MetricType::Gauge, "seconds", "An offset."};
constexpr MetricDef kTestCounter{"t_replies", MetricType::Counter, "", "Replies."};
constexpr MetricDef kTestInfo{"t", MetricType::Info, "", "Names."};

Exposition Sample() {
  Exposition e;
  AddMetric(e, kTestGauge, -0.25, Label("host", "a"));
  AddMetric(e, kTestCounter, 12);
  AddMetric(e, kTestGauge, 1e12, Label("host", "b"));
  AddMetric(e, kTestInfo, 1, Labels({Label("name", "x"), "", Label("v", "4.2")}));
  return e;
}

TEST(ExpositionTest, TextFormat) {
  EXPECT_EQ(Render(Sample(), ExpositionFormat::Text),
            "# HELP t_offset_seconds An offset.\n# TYPE t_offset_seconds gauge\n"
            "t_offset_seconds{host=\"a\"} -0.25\nt_offset_seconds{host=\"b\"} 1000000000000\n"
            "# HELP t_replies_total Replies.\n# TYPE t_replies_total counter\nt_replies_total 12\n"
            "# HELP t_info Names.\n# TYPE t_info gauge\nt_info{name=\"x\",v=\"4.2\"} 1\n");
}

TEST(ExpositionTest, OpenMetricsFormat) {
  EXPECT_EQ(Render(Sample(), ExpositionFormat::OpenMetrics),
            "# HELP t_offset_seconds An offset.\n# TYPE t_offset_seconds gauge\n# UNIT t_offset_seconds seconds\n"
            "t_offset_seconds{host=\"a\"} -0.25\nt_offset_seconds{host=\"b\"} 1000000000000\n"
            "# HELP t_replies Replies.\n# TYPE t_replies counter\nt_replies_total 12\n"
            "# HELP t Names.\n# TYPE t info\nt_info{name=\"x\",v=\"4.2\"} 1\n# EOF\n");
}

TEST(ExpositionTest, EmptyExpositionIsEmptyOrJustTheEnd) {
  EXPECT_EQ(Render({}, ExpositionFormat::Text), "");
  EXPECT_EQ(Render({}, ExpositionFormat::OpenMetrics), "# EOF\n");
}

TEST(ExpositionTest, LabelValuesAreEscapedAndLatin1BecomesUtf8) {
  EXPECT_EQ(Label("p", "a\"b\\c\nd"), "p=\"a\\\"b\\\\c\\nd\"");
  EXPECT_EQ(Label("p", "caf\xE9"), "p=\"caf\xC3\xA9\"");
  EXPECT_EQ(Label("p", ""), "p=\"\"");
}

TEST(ExpositionTest, FormatFollowsTheAcceptHeader) {
  EXPECT_EQ(NegotiateFormat(""), ExpositionFormat::Text);
  EXPECT_EQ(NegotiateFormat("text/plain;version=0.0.4"), ExpositionFormat::Text);
  EXPECT_EQ(NegotiateFormat("application/openmetrics-text;version=1.0.0,text/plain;q=0.5"),
            ExpositionFormat::OpenMetrics);
  EXPECT_STREQ(ContentType(ExpositionFormat::Text), "text/plain; version=0.0.4; charset=utf-8");
}

std::optional<ProbeTarget> Parse(platform::HttpPairs query, std::string_view scrape_timeout = {}) {
  std::string error;
  auto t = ParseProbeQuery(query, scrape_timeout, 1000, error);
  if (!t) ADD_FAILURE() << error;
  return t;
}

std::string ParseError(platform::HttpPairs query) {
  std::string error;
  EXPECT_FALSE(ParseProbeQuery(query, {}, 1000, error));
  return error;
}

TEST(ProbeQueryTest, TargetPortAndProducts) {
  auto t = Parse({{"target", "host.example"}});
  EXPECT_EQ(t->host, "host.example");
  EXPECT_EQ(t->port, 0);
  EXPECT_FALSE(t->products);
  EXPECT_EQ(t->timeout_ms, 1000u);
  t = Parse({{"target", "10.1.2.3:9910"}, {"products", "1"}});
  EXPECT_EQ(t->host, "10.1.2.3");
  EXPECT_EQ(t->port, 9910);
  EXPECT_TRUE(t->products);
  t = Parse({{"port", "65535"}, {"target", "h"}, {"products", "false"}});
  EXPECT_EQ(t->port, 65535);
  EXPECT_FALSE(t->products);
  EXPECT_EQ(Parse({{"target", "h:7"}, {"port", "7"}})->port, 7);
}

TEST(ProbeQueryTest, ScrapeTimeoutShortensTheProbe) {
  EXPECT_EQ(Parse({{"target", "h"}}, "10")->timeout_ms, 1000u);    // the exporter's own is shorter
  EXPECT_EQ(Parse({{"target", "h"}}, "1.2")->timeout_ms, 700u);    // 500 ms before the scrape ends
  EXPECT_EQ(Parse({{"target", "h"}}, "0.9")->timeout_ms, 450u);    // at least half the scrape's
  EXPECT_EQ(Parse({{"target", "h"}}, "0.001")->timeout_ms, 1u);
  EXPECT_EQ(Parse({{"target", "h"}}, "soon")->timeout_ms, 1000u);  // not a number: ignored
  EXPECT_EQ(Parse({{"target", "h"}}, "-3")->timeout_ms, 1000u);
}

TEST(ProbeQueryTest, EveryMistakeHasItsReason) {
  EXPECT_EQ(ParseError({}), "Target parameter is missing");
  EXPECT_EQ(ParseError({{"target", ""}}), "Target parameter is missing");
  EXPECT_EQ(ParseError({{"target", "a"}, {"target", "a"}}), "target is given more than once");
  EXPECT_EQ(ParseError({{"target", "a"}, {"port", ""}}), "port \"\" is not a number from 1 to 65535");
  EXPECT_EQ(ParseError({{"target", "a"}, {"port", "+1"}}), "port \"+1\" is not a number from 1 to 65535");
  EXPECT_EQ(ParseError({{"target", "a:"}}), "target \"a:\" does not end in a port from 1 to 65535");
  EXPECT_EQ(ParseError({{"target", ":9"}}), "target \"\" is not a host name or IPv4 address");
  EXPECT_EQ(ParseError({{"target", "a/b"}}), "target \"a/b\" is not a host name or IPv4 address");
  EXPECT_EQ(ParseError({{"target", "a\x7F"}}), "target \"a\\x7F\" is not a host name or IPv4 address");
  EXPECT_EQ(ParseError({{"target", std::string(254, 'a')}}),
            "target \"" + std::string(64, 'a') + "...\" is not a host name or IPv4 address");
  EXPECT_EQ(ParseError({{"target", "a"}, {"Target", "b"}}),
            "unknown parameter \"Target\"; /probe takes target, port and products");
  EXPECT_EQ(ParseError({{"target", "a"}, {"products", "yes"}}), "products takes 1 or 0, not \"yes\"");
}

class ExporterProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::NetStartup(), 0);
    ResetKr2ForTest(1'600'000'000, "PROBED");
    SetKr2Prohibited(true);
    std::strcpy(g_provider.kr2.status().partner_name, "ntp.loopback");
    g_provider.kr2.status().last_offset_ms = -1234;
    g_provider.kr2.status().sync_successes = 5;
    ASSERT_TRUE(responders_.Start(1));
    target_.host = "127.0.0.1";
    target_.port = platform::NetToHost16(responders_.addresses[0].port);
  }
  void TearDown() override {
    responders_.Stop();
    platform::NetCleanup();
  }
  LoopbackKr2Responders responders_;
  ProbeTarget target_;
};

TEST_F(ExporterProbeTest, AnsweringMachineGivesItsMetrics) {
  responders_.ChangeMachine([](ScriptedKr2Machine& m) {
    m.installed = kKr2InstalledAlways | kKr2InstalledChronwarden | kKr2InstalledServer;
  });
  target_.products = true;
  const ProbeResult probe = RunProbe(target_);
  ASSERT_TRUE(probe.resolved);
  ASSERT_TRUE(probe.machine.have_status);
  ASSERT_TRUE(probe.machine.have_identity);
  ASSERT_TRUE(probe.have_products);
  Exposition e;
  AddProbeMetrics(e, probe, Label("target", "m1"));
  const std::string text = Render(e, ExpositionFormat::Text);
  EXPECT_NE(text.find("\nchronwarden_up{target=\"m1\"} 1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nchronwarden_last_offset_seconds{target=\"m1\"} -1.234\n"), std::string::npos);
  EXPECT_NE(text.find("\nchronwarden_partner_info{target=\"m1\",partner=\"ntp.loopback\"} 1\n"), std::string::npos);
  EXPECT_NE(text.find("\nchronwarden_sync_successes_total{target=\"m1\"} 5\n"), std::string::npos);
  EXPECT_NE(text.find("\nchronwarden_info{target=\"m1\",computer_name=\"PROBED\",version=\"4.2.b.20081210R\","
                      "product_code=\"7\"} 1\n"), std::string::npos);
  EXPECT_NE(text.find("\nchronwarden_first_start_timestamp_seconds{target=\"m1\"} 1600000000\n"), std::string::npos);
  EXPECT_NE(text.find("chronwarden_product_installed{target=\"m1\",product=\"Kairon Server\"} 1\n"
                      "chronwarden_product_installed{target=\"m1\",product=\"Chronwarden\"} 1\n"),
            std::string::npos);
}

TEST_F(ExporterProbeTest, SilentMachineIsDownWithNothingElse) {
  responders_.Stop();   // the port is closed now
  target_.timeout_ms = 200;
  const ProbeResult probe = RunProbe(target_);
  EXPECT_TRUE(probe.resolved);
  EXPECT_FALSE(probe.machine.have_status);
  Exposition e;
  AddProbeMetrics(e, probe, {});
  ASSERT_EQ(e.size(), 2u);
  EXPECT_STREQ(e[0].def.name, "chronwarden_up");
  EXPECT_EQ(e[0].samples[0].value, 0);
  EXPECT_STREQ(e[1].def.name, "chronwarden_probe_duration_seconds");
}

TEST(ExporterLocalTest, StatusBlockMetrics) {
  Exposition none;
  AddLocalStatusMetrics(none, nullptr);
  EXPECT_EQ(Render(none, ExpositionFormat::Text),
            "# HELP chronwarden_local_status_block 1 when this machine's sync status block exists (a process of the family made it), else 0.\n"
            "# TYPE chronwarden_local_status_block gauge\nchronwarden_local_status_block 0\n");
  const SyncStatusBlock owned{32, 1, 7, 4, 2, 2008, 1210, 1};
  Exposition e;
  AddLocalStatusMetrics(e, &owned);
  const std::string text = Render(e, ExpositionFormat::Text);
  EXPECT_NE(text.find("\nchronwarden_local_owner_active 1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nchronwarden_local_owner_info{product_code=\"7\",version=\"4.2\",build=\"20081210\"} 1\n"),
            std::string::npos);
  const SyncStatusBlock never_owned{};   // a block nobody wrote: no owner to name
  Exposition blank;
  AddLocalStatusMetrics(blank, &never_owned);
  EXPECT_EQ(Render(blank, ExpositionFormat::Text).find("chronwarden_local_owner_info"), std::string::npos);
}

// The reply of one request, however the exporter hands it over.
platform::HttpResponse Handle(Exporter& e, platform::HttpRequest r) {
  auto reply = std::make_shared<std::promise<platform::HttpResponse>>();
  auto answer = reply->get_future();
  ExporterHandle(e, r, [reply](platform::HttpResponse response) { reply->set_value(std::move(response)); });
  return answer.get();
}

TEST(ExporterHandleTest, PagesAndErrors) {
  SharedObjectNamespace ns;   // no block in it: /metrics reads none and creates none
  Exporter e;
  EXPECT_EQ(Handle(e, {"GET", "/", {}, {}}).status, 200);
  const auto metrics = Handle(e, {"GET", "/metrics", {}, {{"accept", "application/openmetrics-text"}}});
  EXPECT_EQ(metrics.status, 200);
  EXPECT_EQ(metrics.content_type, "application/openmetrics-text; version=1.0.0; charset=utf-8");
  EXPECT_NE(metrics.body.find("# TYPE chronwarden_exporter_build info\n"), std::string::npos);
  EXPECT_NE(metrics.body.find("\nprocess_cpu_seconds_total "), std::string::npos);
  EXPECT_NE(metrics.body.find("\nchronwarden_local_status_block 0\n"), std::string::npos);
  SyncStatusBlock block{};
  EXPECT_FALSE(ReadSyncStatus(block));
  const auto missing = Handle(e, {"GET", "/nope", {}, {}});
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.body, "no page /nope; this exporter serves /probe?target=HOST[:PORT] and /metrics\n");
  const auto put = Handle(e, {"PUT", "/probe", {{"target", "a"}}, {}});
  EXPECT_EQ(put.status, 405);
  EXPECT_EQ(put.headers, (platform::HttpPairs{{"Allow", "GET, HEAD"}}));
  EXPECT_EQ(Handle(e, {"GET", "/probe", {}, {}}).body, "Target parameter is missing\n");
  EXPECT_EQ(e.bad_requests, 3u);
}

TEST(ExporterHandleTest, ProbesBeyondTheLimitGet503) {
  Exporter e;
  e.options.max_probes = 0;
  const auto busy = Handle(e, {"GET", "/probe", {{"target", "127.0.0.1"}}, {}});
  EXPECT_EQ(busy.status, 503);
  EXPECT_EQ(busy.body, "too many probes in flight (0); try again later\n");
  EXPECT_EQ(busy.headers, (platform::HttpPairs{{"Retry-After", "1"}}));
  EXPECT_EQ(e.probes_rejected, 1u);
}

TEST_F(ExporterProbeTest, ProbeIsAnsweredFromItsOwnThread) {
  Exporter e;
  const auto r = Handle(e, {"GET", "/probe", {{"target", "127.0.0.1:" + std::to_string(target_.port)}}, {}});
  ExporterDrain(e);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.content_type, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_NE(r.body.find("\nchronwarden_up 1\n"), std::string::npos) << r.body;
  EXPECT_EQ(e.probes_answered, 1u);
  EXPECT_EQ(e.in_flight, 0u);
}

}  // namespace
