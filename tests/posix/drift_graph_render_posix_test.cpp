// The drift graph drawn by Cairo: golden pictures of a few states compared pixel by pixel with a
// small tolerance (fonts are rasterised a little differently by other FreeType versions), and an
// SVG that is a whole document. The pictures drawn are kept in the build folder's artefacts.
// CW_UPDATE_GOLDEN=1 writes the goldens anew (look at them before committing).
#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "drift/drift_graph.h"
#include "drift/report.h"
#include "tests/drift_test_util.h"
#include "platform/canvas.h"
#include "platform/error.h"

namespace {

namespace fs = std::filesystem;

// A day of checks every 10 minutes: a slow wave with a fast wobble, startups now and then, some
// checks that set the clock.
std::vector<DriftRecord> Day(std::uint32_t count) {
  std::vector<DriftRecord> records;
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto v = static_cast<std::int32_t>(std::lround(90 * std::sin(i / 6.0) + 25 * std::sin(i * 1.7)));
    const std::uint8_t reason = i % 23 == 5 ? kReasonStartup : kReasonScheduled;
    records.push_back(MakeRecord(1'700'000'000 + i * 600, v, reason, 0x0100000A, i % 9 == 4));
  }
  return records;
}

struct Pixels {
  int width = 0, height = 0;
  std::vector<std::uint32_t> argb;
};

Pixels ReadPng(const fs::path& path) {
  Pixels p;
  cairo_surface_t* s = cairo_image_surface_create_from_png(path.c_str());
  if (cairo_surface_status(s) == CAIRO_STATUS_SUCCESS) {
    cairo_surface_flush(s);
    p.width = cairo_image_surface_get_width(s);
    p.height = cairo_image_surface_get_height(s);
    const int stride = cairo_image_surface_get_stride(s);
    const unsigned char* data = cairo_image_surface_get_data(s);
    for (int y = 0; y < p.height; ++y)
      for (int x = 0; x < p.width; ++x) p.argb.push_back(reinterpret_cast<const std::uint32_t*>(data + y * stride)[x]);
  }
  cairo_surface_destroy(s);
  return p;
}

// Pixels whose colour differs by more than 64 in some channel.
int DifferentPixels(const Pixels& a, const Pixels& b) {
  int n = 0;
  for (std::size_t i = 0; i < a.argb.size(); ++i)
    for (int shift : {0, 8, 16})
      if (std::abs(int(a.argb[i] >> shift & 0xFF) - int(b.argb[i] >> shift & 0xFF)) > 64) {
        ++n;
        break;
      }
  return n;
}

class DriftGraphRenderTest : public DriftFolderTest {
 protected:
  DriftLog& Load(const std::vector<DriftRecord>& records) {
    WriteBytes(PathOf("g.kr"), RecordBytes(records));
    DriftLogSetPath(log_, PathOf("g.kr").c_str());
    EXPECT_TRUE(DriftLogLoad(nullptr, log_));
    return log_;
  }
  // Draws the log as the window would into the artefacts folder and compares with the golden.
  void Check(const std::string& name, std::int32_t selected = -1, std::uint32_t scale = 0) {
    const fs::path out = fs::path(CW_ARTEFACT_DIR) / ("graph_" + name + ".png");
    fs::create_directories(out.parent_path());
    auto canvas = platform::CreateImageCanvas(platform::ImageFormat::Png, out.string(), 636, 308);
    ASSERT_NE(canvas, nullptr);
    DrawDriftGraph(*canvas, &log_, selected, scale);
    ASSERT_TRUE(canvas->Finish());
    const fs::path golden = fs::path(CW_GOLDEN_DIR) / ("graph_" + name + ".png");
    if (std::getenv("CW_UPDATE_GOLDEN")) fs::copy_file(out, golden, fs::copy_options::overwrite_existing);
    const Pixels want = ReadPng(golden), got = ReadPng(out);
    ASSERT_EQ(want.width, 636) << golden;
    ASSERT_EQ(got.width, want.width);
    ASSERT_EQ(got.height, want.height);
    EXPECT_LE(DifferentPixels(want, got), want.width * want.height / 100) << "compare " << out << " with " << golden;
  }
  DriftLog log_;
};

}  // namespace

TEST_F(DriftGraphRenderTest, GoldenEmpty) {
  Load({});
  Check("empty");
}

TEST_F(DriftGraphRenderTest, GoldenOneRecord) {
  Load(Day(1));
  Check("one");
}

TEST_F(DriftGraphRenderTest, Golden64Auto) {
  Load(Day(64));
  Check("64_auto");
}

TEST_F(DriftGraphRenderTest, Golden100PagedAt250) {
  Load(Day(100));
  DriftGraphScroll(log_, ScrollAction::PageLeft, 0);
  Check("100_paged", -1, 250);
}

TEST_F(DriftGraphRenderTest, GoldenSelection) {
  Load(Day(64));
  char text[512];
  ASSERT_TRUE(DriftPointText(log_, 40, text, sizeof text));
  Check("selected", 40);
}

TEST_F(DriftGraphRenderTest, MarkersLandOnTheirPixels) {
  Load(Day(64));
  const fs::path out = dir_ / "m.png";
  auto canvas = platform::CreateImageCanvas(platform::ImageFormat::Png, out.string(), 636, 308);
  ASSERT_NE(canvas, nullptr);
  DrawDriftGraph(*canvas, &log_, -1, 0);
  ASSERT_TRUE(canvas->Finish());
  const Pixels p = ReadPng(out);
  ASSERT_EQ(p.width, 636);
  for (std::uint32_t j = 0; j < 64; ++j) {
    const auto [x, y] = log_.point_cache[j];
    const std::uint32_t want = DriftGraphMarkerStyle(log_.records[j]).brush;   // 0x00BBGGRR
    const std::uint32_t got = p.argb[y * p.width + x - 1];   // inside the marker, left of the line onwards (0xAARRGGBB)
    const std::uint32_t rgb = (got >> 16 & 0xFF) | (got & 0xFF00) | (got & 0xFF) << 16;
    EXPECT_EQ(rgb, want) << "point " << j << " at " << x << "," << y;
  }
}

TEST_F(DriftGraphRenderTest, SvgIsAWholeDocument) {
  Load(Day(64));
  const fs::path out = fs::path(CW_ARTEFACT_DIR) / "graph_64_auto.svg";
  fs::create_directories(out.parent_path());
  auto canvas = platform::CreateImageCanvas(platform::ImageFormatOf(out.string()), out.string(), 636, 308);
  ASSERT_NE(canvas, nullptr);
  DrawDriftGraph(*canvas, &log_, -1, 0);
  ASSERT_TRUE(canvas->Finish());
  std::ifstream f(out);
  std::stringstream ss;
  ss << f.rdbuf();
  const std::string svg = ss.str();
  EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
  EXPECT_NE(svg.find("<svg"), std::string::npos);
  EXPECT_NE(svg.find("width=\"636"), std::string::npos);
  EXPECT_NE(svg.find("</svg>"), std::string::npos);
}

TEST_F(DriftGraphRenderTest, UnwritablePictureFailsWithACode) {
  Load(Day(4));
  auto canvas = platform::CreateImageCanvas(platform::ImageFormat::Png, (dir_ / "no/such/dir/x.png").string(), 100, 100);
  ASSERT_NE(canvas, nullptr);
  DrawDriftGraph(*canvas, &log_, -1, 0);
  EXPECT_FALSE(canvas->Finish());
  EXPECT_NE(platform::LastError(), 0u);
  EXPECT_EQ(platform::CreateImageCanvas(platform::ImageFormat::Png, (dir_ / "x.png").string(), 0, 10), nullptr);
  EXPECT_EQ(platform::LastError(), 87u);
}
