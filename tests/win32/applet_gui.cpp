// Drives the module's CPlApplet on a (virtual) display: opens the property sheet, reads back its
// caption, page titles and the About page's texts from the real windows, keeps a screenshot of
// each page (BMP files in the folder given as the first argument), and closes it with Cancel.
// Exit code 0 when everything read back is as expected.
#include <windows.h>
#include <commctrl.h>
#include <prsht.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using CplFn = LONG(APIENTRY*)(HWND, UINT, LPARAM, LPARAM);
int g_failures = 0;
std::string g_out;

void expect(bool ok, const std::string& what) {
  std::printf("%s: %s\n", ok ? "ok" : "FAILED", what.c_str());
  if (!ok) ++g_failures;
}

std::string text_of(HWND w) {
  char buf[4096] = {};
  GetWindowTextA(w, buf, sizeof buf);
  return buf;
}

HWND find_sheet() {
  HWND found = nullptr;
  EnumWindows(
      [](HWND w, LPARAM p) -> BOOL {
        DWORD pid = 0;
        GetWindowThreadProcessId(w, &pid);
        char cls[64] = {};
        GetClassNameA(w, cls, sizeof cls);
        if (pid == GetCurrentProcessId() && std::string(cls) == "#32770" && IsWindowVisible(w) &&
            GetDlgItem(w, 0x3020) /* the tab control */) {
          *reinterpret_cast<HWND*>(p) = w;
          return FALSE;
        }
        return TRUE;
      },
      reinterpret_cast<LPARAM>(&found));
  return found;
}

void screenshot(HWND w, const std::string& path) {
  RECT r;
  GetWindowRect(w, &r);
  int width = r.right - r.left, height = r.bottom - r.top;
  HDC screen = GetDC(nullptr), mem = CreateCompatibleDC(screen);
  HBITMAP bmp = CreateCompatibleBitmap(screen, width, height);
  HGDIOBJ old = SelectObject(mem, bmp);
  BitBlt(mem, 0, 0, width, height, screen, r.left, r.top, SRCCOPY);
  SelectObject(mem, old);
  BITMAPINFOHEADER bi{sizeof bi, width, height, 1, 24, BI_RGB, 0, 0, 0, 0, 0};
  int stride = (width * 3 + 3) & ~3;
  std::vector<char> pixels(std::size_t(stride) * std::size_t(height));
  GetDIBits(mem, bmp, 0, UINT(height), pixels.data(), reinterpret_cast<BITMAPINFO*>(&bi), DIB_RGB_COLORS);
  BITMAPFILEHEADER fh{0x4D42, DWORD(sizeof fh + sizeof bi + pixels.size()), 0, 0, DWORD(sizeof fh + sizeof bi)};
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(&fh, sizeof fh, 1, f);
    std::fwrite(&bi, sizeof bi, 1, f);
    std::fwrite(pixels.data(), 1, pixels.size(), f);
    std::fclose(f);
  }
  DeleteObject(bmp);
  DeleteDC(mem);
  ReleaseDC(nullptr, screen);
}

// Reads a REG_DWORD of HKEY_LOCAL_MACHINE (-1 when it is missing).
long long reg_dword(const char* key, const char* value) {
  DWORD data = 0, size = sizeof data;
  if (RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_DWORD, nullptr, &data, &size) != ERROR_SUCCESS) return -1;
  return data;
}

// Reads a REG_SZ of HKEY_LOCAL_MACHINE ("(missing)" when it is not there).
std::string reg_sz(const char* key, const char* value) {
  char data[512] = {};
  DWORD size = sizeof data;
  if (RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_SZ, nullptr, data, &size) != ERROR_SUCCESS) return "(missing)";
  return data;
}

// Values the test changes, put back at the end as they were (deleted when they were missing).
struct SavedValue {
  SavedValue(const char* k, const char* v) : key(k), value(v) {}
  const char* key;
  const char* value;
  DWORD type = REG_NONE;
  std::vector<char> data;
  void save() {
    DWORD size = 0;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_ANY, &type, nullptr, &size) != ERROR_SUCCESS) return;
    data.resize(size);
    RegGetValueA(HKEY_LOCAL_MACHINE, key, value, RRF_RT_ANY, &type, data.data(), &size);
  }
  void restore() const {
    if (type == REG_NONE) RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, key, value);
    else RegSetKeyValueA(HKEY_LOCAL_MACHINE, key, value, type, data.data(), DWORD(data.size()));
  }
};

constexpr const char* kParameters = "System\\CurrentControlSet\\Services\\W32Time\\Parameters";
constexpr const char* kConfig = "System\\CurrentControlSet\\Services\\W32Time\\Config";
constexpr const char* kNtpServer = "System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpServer";

// Shows the page titled title; its window, or nullptr when the sheet has no such page.
HWND show_page(HWND sheet, const std::string& title) {
  HWND tab = PropSheet_GetTabControl(sheet);
  for (int i = 0; i < TabCtrl_GetItemCount(tab); ++i) {
    char buf[64] = {};
    TCITEMA item{};
    item.mask = TCIF_TEXT;
    item.pszText = buf;
    item.cchTextMax = sizeof buf;
    SendMessageA(tab, TCM_GETITEMA, WPARAM(i), LPARAM(&item));
    if (title == buf) {
      PropSheet_SetCurSel(sheet, nullptr, i);
      Sleep(300);
      return PropSheet_GetCurrentPageHwnd(sheet);
    }
  }
  return nullptr;
}

void apply(HWND sheet) {
  PropSheet_PressButton(sheet, PSBTN_APPLYNOW);
  Sleep(700);
}

// The Service page's start-up type and the Agent page's check interval changed through messages,
// Apply pressed, the registry read back; then the first values are put back the same way.
void edit_and_apply(HWND sheet) {
  // The Client page: the status worker's verdict on the configured loopback server, a second server
  // typed into row 2 and applied.
  if (HWND page = show_page(sheet, "Client")) {
    const std::string verdicts[] = {"Clock synchronized to within 1 second", "Clock is NOT synchronized",
                                    "Clock is NOT synchronized to within 1 second", "Not able to determine time at machine",
                                    "Clock synchronization status unknown"};
    std::string status;
    for (int i = 0; i < 100; ++i, Sleep(100)) {
      status = text_of(GetDlgItem(page, 2258));
      if (std::find(std::begin(verdicts), std::end(verdicts), status) != std::end(verdicts)) break;
    }
    expect(std::find(std::begin(verdicts), std::end(verdicts), status) != std::end(verdicts),
           "Client page status line from the status worker: " + status);
    SetDlgItemTextA(page, 1010, "127.0.0.2");
    apply(sheet);
    expect(reg_sz(kParameters, "NTPServer") == "127.0.0.1,0x8 127.0.0.2,0x1",
           "Client page: the second server applied (" + reg_sz(kParameters, "NTPServer") + ")");
  }
  // The Server page: serving always and reliable always, applied.
  if (HWND page = show_page(sheet, "Server")) {
    SendDlgItemMessageA(page, 2250, BM_CLICK, 0, 0);
    SendDlgItemMessageA(page, 2253, BM_CLICK, 0, 0);
    apply(sheet);
    expect(reg_dword(kConfig, "AnnounceFlags") == 5 && reg_dword(kNtpServer, "Enabled") == 1,
           "Server page: serving and reliable applied (AnnounceFlags " + std::to_string(reg_dword(kConfig, "AnnounceFlags")) +
               ", NtpServer Enabled " + std::to_string(reg_dword(kNtpServer, "Enabled")) + ")");
  }
  const char* w32time = "System\\CurrentControlSet\\Services\\W32Time";
  const char* provider = "System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";
  if (HWND page = show_page(sheet, "Service")) {
    HWND list = GetDlgItem(page, 2233);
    const LRESULT first = SendMessageA(list, CB_GETCURSEL, 0, 0);
    const auto choose = [&](LRESULT index) {
      SendMessageA(list, CB_SETCURSEL, WPARAM(index), 0);
      SendMessageA(page, WM_COMMAND, MAKEWPARAM(2233, CBN_SELCHANGE), LPARAM(list));
      apply(sheet);
    };
    choose(first == 2 ? 1 : 2);
    const long long expected = first == 2 ? 2 : 3;
    expect(reg_dword(w32time, "Start") == expected, "Service page: start-up type applied (Start " +
                                                         std::to_string(reg_dword(w32time, "Start")) + ")");
    choose(first);
    expect(text_of(GetDlgItem(page, 2239)).rfind("The Windows Time service on ", 0) == 0,
           "Service page status line: " + text_of(GetDlgItem(page, 2239)));
  }
  if (HWND page = show_page(sheet, "Agent")) {
    const std::string first = text_of(GetDlgItem(page, 2266));
    SetDlgItemTextA(page, 2266, "31");
    apply(sheet);
    expect(reg_dword(provider, "SpecialPollInterval") == 31 * 60,
           "Agent page: check interval applied (" + std::to_string(reg_dword(provider, "SpecialPollInterval")) + " s)");
    SetDlgItemTextA(page, 2266, first.c_str());
    apply(sheet);
  }
}

// Runs on a thread of its own while CPlApplet shows the modal sheet.
void inspect(const std::string& folder) {
  HWND sheet = nullptr;
  for (int i = 0; i < 300 && !(sheet = find_sheet()); ++i) Sleep(100);
  expect(sheet != nullptr, "the property sheet opened");
  if (!sheet) return;
  Sleep(500);
  HWND tab = PropSheet_GetTabControl(sheet);
  int pages = TabCtrl_GetItemCount(tab);
  std::string titles;
  for (int i = 0; i < pages; ++i) {
    char buf[64] = {};
    TCITEMA item{};
    item.mask = TCIF_TEXT;
    item.pszText = buf;
    item.cchTextMax = sizeof buf;
    SendMessageA(tab, TCM_GETITEMA, WPARAM(i), LPARAM(&item));
    titles += std::string(i ? "," : "") + buf;
  }
  expect(titles == "Client,Server,Agent,Service,About", "page titles " + titles);
  char computer[64] = {};
  DWORD size = sizeof computer;
  GetComputerNameA(computer, &size);
  expect(text_of(sheet) == std::string("Windows Time Service - ") + computer, "sheet title set by the Client page: " + text_of(sheet));
  expect(text_of(GetDlgItem(sheet, IDOK)) == "&OK" && text_of(GetDlgItem(sheet, IDCANCEL)) == "&Cancel", "buttons &OK and &Cancel");
  const char* names[] = {"client", "server", "agent", "service", "about"};
  for (int i = 0; i < pages; ++i) {
    PropSheet_SetCurSel(sheet, nullptr, i);
    Sleep(700);
    std::string name = pages == 4 && i >= 2 ? names[i + 1] : names[i];
    screenshot(sheet, folder + "\\page-" + std::to_string(i + 1) + "-" + name + ".bmp");
  }
  HWND about = PropSheet_GetCurrentPageHwnd(sheet);
  expect(text_of(sheet) == std::string("Windows Time Service - ") + computer, "sheet title " + text_of(sheet));
  expect(text_of(GetDlgItem(about, 1001)) == "Chronwarden Version 4.2.b.20081210R\r\nCopyright (C) 2008 Selvox, Inc. All rights reserved.",
         "version line");
  expect(text_of(GetDlgItem(about, 2280)) == "www.selvox.example", "documentation link text");
  expect(text_of(GetDlgItem(about, 2293)).rfind("Chronwarden 4.2.b.20081210R\r\nSelvox, Inc.\r\n", 0) == 0, "about text");
  edit_and_apply(sheet);
  PropSheet_PressButton(sheet, PSBTN_CANCEL);
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder = argc > 1 ? argv[1] : ".";
  std::string module = argc > 2 ? argv[2] : "w32tmkr.cpl";
  HMODULE m = LoadLibraryA(module.c_str());
  expect(m != nullptr, "the module loads");
  if (!m) return 1;
  auto cpl = reinterpret_cast<CplFn>(reinterpret_cast<void*>(GetProcAddress(m, "CPlApplet")));
  expect(cpl != nullptr, "CPlApplet is exported");
  expect(GetProcAddress(m, "RunDll") != nullptr, "RunDll is exported");
  if (!cpl) return 1;
  expect(cpl(nullptr, 1, 0, 0) == 1, "CPL_INIT");
  expect(cpl(nullptr, 2, 0, 0) == 1, "CPL_GETCOUNT");
  struct { int icon, name, info; LONG_PTR data; } info{};
  cpl(nullptr, 3, 0, reinterpret_cast<LPARAM>(&info));
  char name[64] = {};
  LoadStringA(m, UINT(info.name), name, sizeof name);
  expect(info.icon == 1 && std::string(name) == "Chronwarden", "CPL_INQUIRE names the applet");
  // The provider marked installed, so that the sheet has its Agent page (put back afterwards).
  const char* provider = "System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";
  char installed[16] = {};
  DWORD installed_size = sizeof installed;
  const bool had_value = RegGetValueA(HKEY_LOCAL_MACHINE, provider, "Service Installed", RRF_RT_REG_SZ, nullptr,
                                      installed, &installed_size) == ERROR_SUCCESS;
  RegSetKeyValueA(HKEY_LOCAL_MACHINE, provider, "Service Installed", REG_SZ, "True", 5);
  // One NTP server on the loopback (the status worker asks it; no name ever leaves the machine).
  SavedValue saved[] = {{kParameters, "NTPServer"}, {kParameters, "Type"}, {kConfig, "AnnounceFlags"}, {kNtpServer, "Enabled"}};
  for (auto& v : saved) v.save();
  RegSetKeyValueA(HKEY_LOCAL_MACHINE, kParameters, "NTPServer", REG_SZ, "127.0.0.1,0x8", 14);
  RegSetKeyValueA(HKEY_LOCAL_MACHINE, kParameters, "Type", REG_SZ, "NTP", 4);
  std::thread watcher(inspect, folder);
  LONG shown = cpl(nullptr, 0x11223348, 0, 0);
  watcher.join();
  for (const auto& v : saved) v.restore();
  if (had_value) RegSetKeyValueA(HKEY_LOCAL_MACHINE, provider, "Service Installed", REG_SZ, installed, DWORD(std::strlen(installed) + 1));
  else RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, provider, "Service Installed");
  expect(shown == 1, "the sheet launch succeeded (error " + std::to_string(GetLastError()) + ")");
  cpl(nullptr, 8, 0, 0);
  return g_failures ? 1 : 0;
}
