// Prometheus' text format and OpenMetrics.
#include "exporter/exposition.h"

#include <charconv>
#include <cmath>

namespace {

std::string Number(double v) {
  if (std::isnan(v)) return "NaN";
  if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
  char buf[32];
  // Whole values (counters, timestamps) as integers, never in exponent form.
  constexpr double kExactIntegers = 9007199254740992.0;   // 2^53
  const bool whole = v == std::trunc(v) && std::fabs(v) < kExactIntegers;
  const auto [end, ec] = whole ? std::to_chars(buf, buf + sizeof buf, static_cast<long long>(v))
                               : std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc{} ? std::string(buf, end) : "NaN";
}

// Latin-1 to UTF-8, with the escapes of a label value (backslash, quote, line feed) or of a help
// text (backslash and line feed; OpenMetrics also the quote).
std::string Escaped(std::string_view text, bool quote) {
  std::string out;
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else if (c == '"' && quote) out += "\\\"";
    else if (c >= 0x80) out += static_cast<char>(0xC0 | (c >> 6)), out += static_cast<char>(0x80 | (c & 0x3F));
    else out += ch;
  }
  return out;
}

std::string SampleName(const MetricDef& d) {
  switch (d.type) {
    case MetricType::Counter: return std::string(d.name) + "_total";
    case MetricType::Info: return std::string(d.name) + "_info";
    default: return d.name;
  }
}

}  // namespace

void AddMetric(Exposition& out, const MetricDef& def, double value, std::string labels) {
  for (auto& f : out)
    if (std::string_view(f.def.name) == def.name) return f.samples.push_back({std::move(labels), value});
  out.push_back({def, {{std::move(labels), value}}});
}

std::string Label(std::string_view name, std::string_view value) {
  return std::string(name) + "=\"" + Escaped(value, true) + "\"";
}

std::string Labels(std::initializer_list<std::string> labels) {
  std::string out;
  for (const auto& l : labels)
    if (!l.empty()) out += (out.empty() ? "" : ",") + l;
  return out;
}

ExpositionFormat NegotiateFormat(std::string_view accept) {
  return accept.find("application/openmetrics-text") != std::string_view::npos ? ExpositionFormat::OpenMetrics
                                                                               : ExpositionFormat::Text;
}

const char* ContentType(ExpositionFormat format) {
  return format == ExpositionFormat::OpenMetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                                 : "text/plain; version=0.0.4; charset=utf-8";
}

std::string Render(const Exposition& metrics, ExpositionFormat format) {
  const bool om = format == ExpositionFormat::OpenMetrics;
  std::string out;
  for (const auto& f : metrics) {
    if (f.samples.empty()) continue;
    const std::string sample = SampleName(f.def);
    // The text format names the family as its samples and knows no info type; OpenMetrics names
    // it without the suffix and says its unit.
    const std::string family = om ? f.def.name : sample;
    const char* type = f.def.type == MetricType::Counter ? "counter"
                       : f.def.type == MetricType::Info && om ? "info" : "gauge";
    out += "# HELP " + family + " " + Escaped(f.def.help, om) + "\n";
    out += "# TYPE " + family + " " + type + "\n";
    if (om && *f.def.unit) out += "# UNIT " + family + " " + f.def.unit + "\n";
    for (const auto& s : f.samples)
      out += sample + (s.labels.empty() ? "" : "{" + s.labels + "}") + " " + Number(s.value) + "\n";
  }
  if (om) out += "# EOF\n";
  return out;
}
