// Metrics in Prometheus' exposition formats: the text format (version 0.0.4, what every
// Prometheus and node_exporter's textfile collector read) and OpenMetrics 1.0 (what Prometheus
// asks for first). Families keep the order of their first sample; a family without samples is
// left out. Names follow Prometheus' rules: base units in the name (_seconds, _bytes), counters
// named without "_total" here (the sample gets it), info metrics without "_info".
#pragma once
#include <string>
#include <string_view>
#include <vector>

enum class MetricType { Gauge, Counter, Info };

// A metric's name, type, unit ("" or the name's unit suffix: "seconds", "bytes") and help text.
struct MetricDef {
  const char* name;
  MetricType type;
  const char* unit;
  const char* help;
};

struct MetricSample {
  std::string labels;   // rendered, without braces: a="1",b="2" ("" for none)
  double value = 0;
};

struct MetricFamily {
  MetricDef def;
  std::vector<MetricSample> samples;
};
using Exposition = std::vector<MetricFamily>;

enum class ExpositionFormat { Text, OpenMetrics };

// Adds one sample to the def's family (appended on its first sample).
void AddMetric(Exposition& out, const MetricDef& def, double value, std::string labels = {});
// One label, name="value", the value escaped; bytes of 0x80 and above are taken as Latin-1 (the
// 8-bit texts of KR2 records) and written as UTF-8, so that any text makes a valid exposition.
std::string Label(std::string_view name, std::string_view value);
// Labels joined with commas, empty ones skipped.
std::string Labels(std::initializer_list<std::string> labels);

// OpenMetrics when the Accept header names it, else the text format.
ExpositionFormat NegotiateFormat(std::string_view accept);
const char* ContentType(ExpositionFormat format);
std::string Render(const Exposition& metrics, ExpositionFormat format);
