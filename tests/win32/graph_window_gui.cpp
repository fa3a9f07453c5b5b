// The drift graph window for real: dialog 6003 from this program's resources, opened modeless on
// a file of 100 records, driven with the messages a user's actions send (a page left on the scroll
// bar, a scale chosen, a click on a point, the close box), its controls read back and its plot's
// pixels checked; a picture of the window is written to the file named by the first argument (BMP).
// Run under Wine with a virtual display (xvfb-run). Exit code 0 when every check held.
#include <windows.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "drift/drift_graph.h"
#include "drift/drift_graph_window.h"
#include "platform/canvas.h"
#include "resources/resource_ids.h"

namespace {

int g_failures = 0;

void Check(bool ok, const char* what, const std::string& got = {}) {
  std::printf("%s %s%s%s\n", ok ? "ok  " : "FAIL", what, got.empty() ? "" : ": ", got.c_str());
  if (!ok) ++g_failures;
}

// Runs the window's messages for a while (posted redraws, paints, timers).
void Pump(int ms) {
  const DWORD end = GetTickCount() + ms;
  do {
    MSG m;
    while (PeekMessageA(&m, nullptr, 0, 0, PM_REMOVE)) {
      TranslateMessage(&m);
      DispatchMessageA(&m);
    }
    Sleep(10);
  } while (GetTickCount() < end);
}

std::string ItemText(HWND w, int id) {
  char text[1024] = {};
  GetDlgItemTextA(w, id, text, sizeof text);
  return text;
}

std::int32_t Variance(std::uint32_t i) {
  return static_cast<std::int32_t>(std::lround(90 * std::sin(i / 6.0) + 25 * std::sin(i * 1.7)));
}

std::string WriteLog() {
  char dir[MAX_PATH] = {};
  GetTempPathA(sizeof dir, dir);
  const std::string path = std::string(dir) + "cw-graph-gui-" + std::to_string(GetCurrentProcessId()) + ".kr";
  std::vector<DriftRecord> records(100);
  for (std::uint32_t i = 0; i < records.size(); ++i) {
    DriftRecord& r = records[i];
    r.version = 41;
    r.flags = static_cast<std::uint8_t>((7 << 1) | (i % 9 == 4));
    r.reason = i % 23 == 5 ? 255 : 1;
    r.check_time = 1'700'000'000 + i * 600;
    r.variance_ms = Variance(i);
    r.address = 0x0100000A;
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(records.data()), static_cast<std::streamsize>(records.size() * sizeof(DriftRecord)));
  return path;
}

// The window as the screen shows it, as a 24-bit BMP.
bool SavePicture(HWND w, const char* path) {
  RECT r{};
  GetWindowRect(w, &r);
  const int width = r.right - r.left, height = r.bottom - r.top;
  HDC screen = GetDC(nullptr);
  HDC mem = CreateCompatibleDC(screen);
  HBITMAP bmp = CreateCompatibleBitmap(screen, width, height);
  HGDIOBJ old = SelectObject(mem, bmp);
  BitBlt(mem, 0, 0, width, height, screen, r.left, r.top, SRCCOPY);
  SelectObject(mem, old);
  BITMAPINFOHEADER bi{};
  bi.biSize = sizeof bi;
  bi.biWidth = width;
  bi.biHeight = height;
  bi.biPlanes = 1;
  bi.biBitCount = 24;
  const int stride = (width * 3 + 3) & ~3;
  std::vector<char> bits(static_cast<std::size_t>(stride) * height);
  GetDIBits(mem, bmp, 0, height, bits.data(), reinterpret_cast<BITMAPINFO*>(&bi), DIB_RGB_COLORS);
  DeleteObject(bmp);
  DeleteDC(mem);
  ReleaseDC(nullptr, screen);
  BITMAPFILEHEADER fh{};
  fh.bfType = 0x4D42;
  fh.bfOffBits = sizeof fh + sizeof bi;
  fh.bfSize = fh.bfOffBits + static_cast<DWORD>(bits.size());
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(&fh), sizeof fh);
  f.write(reinterpret_cast<const char*>(&bi), sizeof bi);
  f.write(bits.data(), static_cast<std::streamsize>(bits.size()));
  return f.good();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = WriteLog();
  platform::Dialog* d = OpenDriftGraph(GetModuleHandleA(nullptr), nullptr, false, 1, "", path.c_str());
  Check(d != nullptr, "the window opens");
  if (!d) return 1;
  HWND w = static_cast<HWND>(d->NativeHandle());
  SetForegroundWindow(w);
  Pump(300);
  Check(d->Title() == "Kairon II Drift Data: " + path.substr(path.find_last_of('\\') + 1, path.size() - path.find_last_of('\\') - 4),
        "title", d->Title());
  Check(IsWindowVisible(GetDlgItem(w, IDC_GRAPH_OPEN_FILE)) != 0, "Open File... is shown");
  Check(IsWindowEnabled(GetDlgItem(w, IDC_GRAPH_SCROLL)) != 0, "the scroll bar is enabled");
  Check(SendDlgItemMessageA(w, IDC_GRAPH_SCALE, CB_GETCOUNT, 0, 0) == 18, "18 scale items");
  SendMessageA(w, kGraphRedrawMessage, 0, 0);
  Check(ItemText(w, IDC_GRAPH_LABEL) == "Variance for checks 37 through 100 (of 100)\r\nEach vertical division represents 25 milliseconds",
        "label at start", ItemText(w, IDC_GRAPH_LABEL));

  SendMessageA(w, WM_HSCROLL, MAKEWPARAM(SB_PAGELEFT, 0), reinterpret_cast<LPARAM>(GetDlgItem(w, IDC_GRAPH_SCROLL)));
  Pump(200);
  Check(ItemText(w, IDC_GRAPH_LABEL).rfind("Variance for checks 1 through 64 (of 100)", 0) == 0, "label after a page left",
        ItemText(w, IDC_GRAPH_LABEL));
  Check(GetScrollPos(GetDlgItem(w, IDC_GRAPH_SCROLL), SB_CTL) == 0, "scroll position 0");

  HWND combo = GetDlgItem(w, IDC_GRAPH_SCALE);
  SendMessageA(combo, CB_SETCURSEL, 5, 0);   // 100x
  SendMessageA(w, WM_COMMAND, MAKEWPARAM(IDC_GRAPH_SCALE, CBN_SELCHANGE), reinterpret_cast<LPARAM>(combo));
  Pump(200);
  Check(ItemText(w, IDC_GRAPH_LABEL).find("represents 100 milliseconds") != std::string::npos, "label after choosing 100x",
        ItemText(w, IDC_GRAPH_LABEL));

  // Where record 10 lies: the same layout the window computed, measured in the window's font.
  int px = 0, py = 0;
  {
    auto canvas = platform::CreateControlCanvas(*d, IDC_GRAPH_PLOT);
    canvas->SetFont(kDriftGraphFont, kDriftGraphFontPoints);
    const DriftGraphLayout l = DriftGraphLayoutFor(*canvas, 100, 64);
    px = static_cast<int>(l.x0 + 10 * l.step);
    py = DriftGraphPointY(l, Variance(10), 100);
  }
  SendMessageA(w, kGraphRedrawMessage, 0, 0);
  const platform::DlgRect plot = d->ControlRect(IDC_GRAPH_PLOT);
  {
    HWND ctl = GetDlgItem(w, IDC_GRAPH_PLOT);
    HDC dc = GetDC(ctl);
    const COLORREF marker = GetPixel(dc, px - 1, py), background = GetPixel(dc, 2, 2);
    ReleaseDC(ctl, dc);
    char got[64];
    std::snprintf(got, sizeof got, "%06lx", static_cast<unsigned long>(marker));
    Check(marker == graph_colour::kYellow, "record 10's marker is yellow on the screen", got);
    Check(background == graph_colour::kBlack, "the plot is black");
  }
  SendMessageA(w, WM_MOUSEMOVE, 0, MAKELPARAM(plot.left + px, plot.top + py - 7));
  SendMessageA(w, WM_LBUTTONUP, 0, MAKELPARAM(plot.left + px, plot.top + py - 7));
  Pump(300);
  Check(ItemText(w, IDC_GRAPH_DESCRIPTION).rfind("Check #11: ", 0) == 0, "a click 7 pixels above selects record 11",
        ItemText(w, IDC_GRAPH_DESCRIPTION));
  InvalidateRect(w, nullptr, TRUE);
  Pump(300);
  if (argc > 1) Check(SavePicture(w, argv[1]), "picture written", argv[1]);

  SendMessageA(w, WM_CLOSE, 0, 0);
  Pump(100);
  Check(!IsWindow(w), "the close box ends the window");
  DeleteFileA(path.c_str());
  std::printf("%d failures\n", g_failures);
  return g_failures ? 1 : 0;
}
