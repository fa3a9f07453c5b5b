// chronwarden graph: the drift graph of a drift history file as a PNG or SVG picture of the plot,
// with the window's label and description texts printed beside it.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "cli/commands.h"
#include "config/defaults.h"
#include "drift/drift_graph.h"
#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/canvas.h"
#include "platform/error.h"
#include "platform/error_text.h"

bool LoadDriftFileForCli(const char* command, const std::string& file, bool local, DriftLog& log);

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden graph FILE [-o OUT.png|OUT.svg] [--first N] [--scale MS|auto] [--select N]\n"
    "                             [--size WxH] [--utc|--local] [--watch [--ticks N]]\n\n"
    "Draws the drift graph of the drift history file FILE exactly as the Control Panel's graph window\n"
    "shows it: up to 64 checks, the newest unless --first says otherwise. FILE may be another\n"
    "machine's history, \\\\HOST\\admin$\\system32\\drift.kr. The label above the plot and the text\n"
    "below it are printed; the plot itself is written as a picture.\n\n"
    "Options:\n"
    "  -o OUT       the picture: PNG, or SVG when OUT ends in .svg (default: FILE's name with .png,\n"
    "               in the current folder)\n"
    "  --first N    the first check shown (1 is the oldest), as when paging back in the window\n"
    "  --scale MS   milliseconds per vertical division: 1, 10, 25, 50, 100, 250, 500, 1000, 2500, 5000,\n"
    "               10000, 30000, 60000, 120000, 300000, 600000, 1800000, or auto (the default)\n"
    "  --select N   check N is selected (ringed) and described, as when it is clicked\n"
    "  --size WxH   the plot's size in pixels (default 636x308, the window's plot)\n"
    "  --local      times in local time (the default, as the Control Panel shows them)\n"
    "  --utc        times in UTC\n"
    "  --watch      keep OUT current while FILE grows: every 2 seconds the file is read again when the\n"
    "               newest checks are in view, and the picture redrawn when it changed\n"
    "  --ticks N    with --watch: stop after N such 2-second ticks (default: run until interrupted)\n\n"
    "Exit codes: 0 drawn, 1 the file could not be read or the picture not written, 2 usage.\n";

struct GraphOptions {
  std::string file, out;
  std::uint32_t first = 0;   // 1-based; 0: the newest
  std::uint32_t scale = kDriftGraphAuto;
  std::uint32_t select = 0;  // 1-based; 0: none
  int width = defaults::kGraphPlotWidth, height = defaults::kGraphPlotHeight;
  bool local = true, watch = false;
  std::uint32_t ticks = 0;   // 0: forever
};

bool ParseScale(std::string_view text, std::uint32_t& scale) {
  if (text == "auto" || text == "Auto") return scale = kDriftGraphAuto, true;
  std::uint32_t value = 0;
  if (!ParseNumber(text, value)) return false;
  for (const auto s : kDriftGraphScales)
    if (s == value) return scale = value, true;
  return false;
}

bool ParseSize(std::string_view text, int& width, int& height) {
  const auto x = text.find('x');
  return x != std::string_view::npos && ParseNumber(text.substr(0, x), width, 40, 8192) &&
         ParseNumber(text.substr(x + 1), height, 40, 8192);
}

// The picture's default name: FILE's own name with its extension replaced by ".png".
std::string DefaultOutput(const std::string& file) {
  const auto sep = file.find_last_of("\\/");
  const std::string name = sep == std::string::npos ? file : file.substr(sep + 1);
  const std::string report = DriftReportPathFor(name.c_str());   // "<name>.txt"
  return report.substr(0, report.size() - 4) + ".png";
}

void PrintText(const std::string& text) {
  std::string out;
  for (const char c : text)
    if (c != '\r') out += c;
  std::printf("%s\n", out.c_str());
}

// Draws into OUT through a temporary file renamed over it, so a viewer never sees half a picture.
bool Render(const GraphOptions& o, DriftLog& log, std::int32_t selected, const std::string& point_text) {
  const std::string temp = o.out + ".part";
  auto canvas = platform::CreateImageCanvas(platform::ImageFormatOf(o.out), temp, o.width, o.height);
  DriftGraphTexts texts;
  bool written = false;
  if (canvas) {
    texts = DrawDriftGraph(*canvas, &log, selected, o.scale);
    written = canvas->Finish() && std::rename(temp.c_str(), o.out.c_str()) == 0;
  }
  if (!written) {
    char reason[129] = {};
    SystemErrorText(platform::LastError(), reason, sizeof reason);
    std::fprintf(stderr, "chronwarden graph: could not write %s; %s\n", o.out.c_str(), reason);
    std::remove(temp.c_str());
    return false;
  }
  PrintText(texts.label);
  PrintText(texts.keep_description ? point_text : texts.description);
  std::printf("Graph of %u records written to %s (%dx%d)\n", log.record_count, o.out.c_str(), o.width, o.height);
  std::fflush(stdout);
  return true;
}

}  // namespace

int CmdGraph(CommandArgs args) {
  GraphOptions o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    const bool has_value = i + 1 < args.size();
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--utc") o.local = false;
    else if (a == "--local") o.local = true;
    else if (a == "--watch") o.watch = true;
    else if (a == "-o" || a == "--output") {
      if (!has_value) return UsageError("graph", "-o needs a file name");
      o.out = std::string(args[++i]);
    } else if (a == "--first") {
      if (!has_value || !ParseNumber(args[++i], o.first, 1u)) return UsageError("graph", "--first needs a check number from 1");
    } else if (a == "--select") {
      if (!has_value || !ParseNumber(args[++i], o.select, 1u)) return UsageError("graph", "--select needs a check number from 1");
    } else if (a == "--ticks") {
      if (!has_value || !ParseNumber(args[++i], o.ticks, 1u)) return UsageError("graph", "--ticks needs a number from 1");
    } else if (a == "--scale") {
      if (!has_value || !ParseScale(args[++i], o.scale))
        return UsageError("graph", "--scale needs auto or one of the listed milliseconds per division");
    } else if (a == "--size") {
      if (!has_value || !ParseSize(args[++i], o.width, o.height))
        return UsageError("graph", "--size needs WIDTHxHEIGHT in pixels, 40 to 8192 each");
    } else if (!a.empty() && a[0] == '-') {
      return UsageError("graph", "unknown option '" + std::string(a) + "'");
    } else if (o.file.empty()) {
      o.file = std::string(a);
    } else {
      return UsageError("graph", "only one FILE can be drawn");
    }
  }
  if (o.file.empty()) return UsageError("graph", "FILE is missing");
  if (o.file.size() > kDriftPathMax) return UsageError("graph", "FILE is longer than 260 characters");
  if (o.ticks && !o.watch) return UsageError("graph", "--ticks goes with --watch");
  if (o.out.empty()) o.out = DefaultOutput(o.file);

  DriftLog log;
  if (!LoadDriftFileForCli("graph", o.file, o.local, log)) return kExitFailed;
  if (o.first) DriftGraphScroll(log, ScrollAction::Thumb, std::int64_t{o.first} - 1);
  std::int32_t selected = -1;
  char point_text[512] = {};
  if (o.select) {
    if (!DriftPointText(log, static_cast<std::int32_t>(o.select - 1), point_text, sizeof point_text)) {
      std::fprintf(stderr, "chronwarden graph: check %u is not in or before the shown range (checks %u through %u of %u)\n",
                   o.select, log.first_shown + 1, log.end_shown, log.record_count);
      return kExitFailed;
    }
    selected = static_cast<std::int32_t>(o.select - 1);
  }
  if (!Render(o, log, selected, point_text)) return kExitFailed;
  for (std::uint32_t tick = 0; o.watch && (o.ticks == 0 || tick < o.ticks); ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kDriftGraphTimerMs));
    if (DriftGraphFollow(log) && !Render(o, log, selected, point_text)) return kExitFailed;
  }
  return kExitOk;
}
