// Real dialogs and property sheets: one dialog procedure forwards every window's messages to its
// DialogLogic; the Dialog calls are the controls' own messages.
#include <windows.h>
#include <commctrl.h>
#include <shellapi.h>
#include <windowsx.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "platform/dialog_sys.h"
#include "platform/error.h"

namespace platform {

namespace {

std::mutex g_cache_lock;

HINSTANCE module() { return static_cast<HINSTANCE>(ResourceModule()); }

// Fonts and icons live as long as the process: a handful, made once each.
HFONT font_handle(const FontSpec& f) {
  static std::map<std::tuple<std::string, int, int, bool>, HFONT> cache;
  std::lock_guard lock(g_cache_lock);
  auto key = std::make_tuple(std::string(f.face), f.points, f.weight, f.underline);
  HFONT& h = cache[key];
  if (!h) {
    HDC dc = GetDC(nullptr);
    int height = -MulDiv(f.points, GetDeviceCaps(dc, LOGPIXELSY), 72);
    ReleaseDC(nullptr, dc);
    h = CreateFontA(height, 0, 0, 0, f.weight, FALSE, f.underline, FALSE, DEFAULT_CHARSET, OUT_DEFAULT_PRECIS,
                    CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY, DEFAULT_PITCH | FF_DONTCARE, f.face);
  }
  return h;
}

HICON icon_handle(int id, int size) {
  static std::map<std::pair<int, int>, HICON> cache;
  std::lock_guard lock(g_cache_lock);
  HICON& h = cache[{id, size}];
  if (!h)
    h = static_cast<HICON>(LoadImageA(module(), MAKEINTRESOURCEA(id), IMAGE_ICON, size, size,
                                      size ? LR_DEFAULTCOLOR : LR_DEFAULTSIZE));
  return h;
}

HBRUSH brush_handle(COLORREF c) {
  static std::map<COLORREF, HBRUSH> cache;
  std::lock_guard lock(g_cache_lock);
  HBRUSH& h = cache[c];
  if (!h) h = CreateSolidBrush(c);
  return h;
}

// The activation context of the module's manifest (comctl32 version 6), made once.
HANDLE activation_context() {
  static HANDLE ctx = [] {
    ACTCTXA a{};
    a.cbSize = sizeof a;
    a.dwFlags = ACTCTX_FLAG_RESOURCE_NAME_VALID | ACTCTX_FLAG_HMODULE_VALID;
    a.hModule = module();
    a.lpResourceName = MAKEINTRESOURCEA(2);
    return CreateActCtxA(&a);
  }();
  return ctx;
}

struct ActivationScope {
  ULONG_PTR cookie = 0;
  bool active = false;
  ActivationScope() {
    HANDLE ctx = activation_context();
    active = ctx != INVALID_HANDLE_VALUE && ActivateActCtx(ctx, &cookie);
  }
  ~ActivationScope() {
    if (active) DeactivateActCtx(0, cookie);
  }
};

bool g_sheet_changed = false;   // the one sheet's changed flag

bool class_is(HWND w, const char* name) {
  char cls[32] = {};
  GetClassNameA(w, cls, sizeof cls);
  return lstrcmpiA(cls, name) == 0;
}

class Win32Dialog final : public Dialog {
 public:
  Win32Dialog(DialogLogic& logic, int template_id, HWND parent, bool modal)
      : logic_(logic), template_id_(template_id), parent_(parent), modal_(modal) {}

  DialogLogic& logic() { return logic_; }
  HWND hwnd = nullptr;
  bool page = false;

  HWND item(int id) const { return hwnd ? GetDlgItem(hwnd, id) : nullptr; }
  bool list(int id) const { return class_is(item(id), "ListBox"); }

  int TemplateId() const override { return template_id_; }
  bool HasControl(int id) const override { return item(id) != nullptr; }
  std::string Text(int id) const override {
    HWND w = item(id);
    if (!w) return {};
    std::string s(std::size_t(GetWindowTextLengthA(w)) + 1, '\0');
    s.resize(std::size_t(GetWindowTextA(w, s.data(), int(s.size()))));
    return s;
  }
  void SetText(int id, std::string_view text) override { SetDlgItemTextA(hwnd, id, std::string(text).c_str()); }
  std::uint32_t Number(int id, bool* ok) const override {
    BOOL good = FALSE;
    UINT v = GetDlgItemInt(hwnd, id, &good, FALSE);
    if (ok) *ok = good;
    return good ? v : 0;
  }
  void SetNumber(int id, std::uint32_t value) override { SetDlgItemInt(hwnd, id, value, FALSE); }
  bool Checked(int id) const override { return IsDlgButtonChecked(hwnd, id) == BST_CHECKED; }
  void SetChecked(int id, bool checked) override { CheckDlgButton(hwnd, id, checked ? BST_CHECKED : BST_UNCHECKED); }
  bool Enabled(int id) const override { return item(id) && IsWindowEnabled(item(id)); }
  void Enable(int id, bool enabled) override {
    if (HWND w = item(id)) EnableWindow(w, enabled);
  }
  bool Visible(int id) const override { return item(id) && (GetWindowLongA(item(id), GWL_STYLE) & WS_VISIBLE); }
  void Show(int id, bool visible) override {
    if (HWND w = item(id)) ShowWindow(w, visible ? SW_SHOW : SW_HIDE);
  }
  void Focus(int id) override {
    if (HWND w = item(id)) SetFocus(w);
  }
  int AddItem(int id, std::string_view text, std::intptr_t data) override {
    HWND w = item(id);
    if (!w) return -1;
    bool lb = list(id);
    std::string t(text);
    LRESULT i = SendMessageA(w, lb ? LB_ADDSTRING : CB_ADDSTRING, 0, LPARAM(t.c_str()));
    if (i >= 0) SendMessageA(w, lb ? LB_SETITEMDATA : CB_SETITEMDATA, WPARAM(i), LPARAM(data));
    return int(i);
  }
  void ClearItems(int id) override {
    if (HWND w = item(id)) SendMessageA(w, list(id) ? LB_RESETCONTENT : CB_RESETCONTENT, 0, 0);
  }
  int ItemCount(int id) const override {
    HWND w = item(id);
    return w ? std::max(0, int(SendMessageA(w, list(id) ? LB_GETCOUNT : CB_GETCOUNT, 0, 0))) : 0;
  }
  std::string ItemText(int id, int index) const override {
    HWND w = item(id);
    if (!w) return {};
    bool lb = list(id);
    LRESULT n = SendMessageA(w, lb ? LB_GETTEXTLEN : CB_GETLBTEXTLEN, WPARAM(index), 0);
    if (n < 0) return {};
    std::string s(std::size_t(n) + 1, '\0');
    SendMessageA(w, lb ? LB_GETTEXT : CB_GETLBTEXT, WPARAM(index), LPARAM(s.data()));
    s.resize(std::size_t(n));
    return s;
  }
  std::intptr_t ItemData(int id, int index) const override {
    HWND w = item(id);
    return w ? std::intptr_t(SendMessageA(w, list(id) ? LB_GETITEMDATA : CB_GETITEMDATA, WPARAM(index), 0)) : 0;
  }
  int Selection(int id) const override {
    HWND w = item(id);
    return w ? int(SendMessageA(w, list(id) ? LB_GETCURSEL : CB_GETCURSEL, 0, 0)) : -1;
  }
  void Select(int id, int index) override {
    if (HWND w = item(id)) SendMessageA(w, list(id) ? LB_SETCURSEL : CB_SETCURSEL, WPARAM(index), 0);
  }
  void SetTabStops(int id, std::initializer_list<int> stops) override {
    HWND w = item(id);
    if (!w) return;
    std::vector<INT> v(stops.begin(), stops.end());
    SendMessageA(w, list(id) ? LB_SETTABSTOPS : EM_SETTABSTOPS, WPARAM(v.size()), LPARAM(v.data()));
    InvalidateRect(w, nullptr, TRUE);
  }
  void SetScrollRange(int id, int min, int max) override {
    if (HWND w = item(id)) ::SetScrollRange(w, SB_CTL, min, max, TRUE);
  }
  void SetScrollPos(int id, int pos) override {
    if (HWND w = item(id)) ::SetScrollPos(w, SB_CTL, pos, TRUE);
  }
  ScrollInfo Scroll(int id) const override {
    SCROLLINFO si{};
    si.cbSize = sizeof si;
    si.fMask = SIF_RANGE | SIF_POS;
    if (HWND w = item(id); !w || !GetScrollInfo(w, SB_CTL, &si)) return {0, 0, 0};
    return {si.nMin, si.nMax, si.nPos};
  }
  void SetFont(int id, const FontSpec& font) override {
    if (HWND w = item(id)) {
      SendMessageA(w, WM_SETFONT, WPARAM(font_handle(font)), TRUE);
      fonts_[id] = font;
    }
  }
  FontSpec Font(int id) const override {
    auto it = fonts_.find(id);
    return it == fonts_.end() ? kFontDialog : it->second;
  }
  void SetIcon(int id, int icon_resource, int size_px) override {
    if (HWND w = item(id)) {
      SendMessageA(w, STM_SETICON, WPARAM(icon_handle(icon_resource, size_px)), 0);
      icons_[id] = icon_resource;
    }
  }
  int Icon(int id) const override {
    auto it = icons_.find(id);
    return it == icons_.end() ? 0 : it->second;
  }
  void SetClassCursor(int id, int cursor_resource) override {
    if (HWND w = item(id)) SetClassLongPtrA(w, GCLP_HCURSOR, LONG_PTR(LoadCursorA(module(), MAKEINTRESOURCEA(cursor_resource))));
  }
  void SetProgressRange(int id, int min, int max, int step) override {
    if (HWND w = item(id)) {
      SendMessageA(w, PBM_SETRANGE32, WPARAM(min), LPARAM(max));
      SendMessageA(w, PBM_SETSTEP, WPARAM(step), 0);
      SendMessageA(w, PBM_SETPOS, WPARAM(min), 0);
    }
  }
  void StepProgress(int id) override {
    if (HWND w = item(id)) SendMessageA(w, PBM_STEPIT, 0, 0);
  }
  int Progress(int id) const override {
    HWND w = item(id);
    return w ? int(SendMessageA(w, PBM_GETPOS, 0, 0)) : 0;
  }
  std::string Title() const override {
    char buf[512] = {};
    if (hwnd) GetWindowTextA(hwnd, buf, sizeof buf);
    return buf;
  }
  void SetTitle(std::string_view title) override { SetWindowTextA(hwnd, std::string(title).c_str()); }
  DlgRect ControlRect(int id) const override {
    RECT r{};
    if (HWND w = item(id)) {
      GetWindowRect(w, &r);
      MapWindowPoints(nullptr, hwnd, reinterpret_cast<POINT*>(&r), 2);
    }
    return {r.left, r.top, r.right, r.bottom};
  }
  DlgPoint CursorPos() const override {
    POINT p{};
    GetCursorPos(&p);
    ScreenToClient(hwnd, &p);
    return {p.x, p.y};
  }
  void SetCursor(CursorShape shape) override { sys::SetSystemCursor(shape); }
  void SetCursorResource(int cursor_resource) override { ::SetCursor(LoadCursorA(module(), MAKEINTRESOURCEA(cursor_resource))); }
  void SetTimer(int timer_id, std::uint32_t ms) override { ::SetTimer(hwnd, UINT_PTR(timer_id), ms, nullptr); }
  void KillTimer(int timer_id) override { ::KillTimer(hwnd, UINT_PTR(timer_id)); }
  void Invalidate(int id) override { InvalidateRect(id ? item(id) : hwnd, nullptr, TRUE); }
  void Post(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override {
    PostMessageA(hwnd, msg, wparam, lparam);
  }
  std::intptr_t Send(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override {
    return SendMessageA(hwnd, msg, wparam, lparam);
  }
  void PostToParent(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override {
    if (parent_) PostMessageA(parent_, msg, wparam, lparam);
  }
  void End(std::intptr_t result) override {
    if (!hwnd) return;
    if (modal_) EndDialog(hwnd, result);
    else DestroyWindow(hwnd);
  }
  void BringToFront() override {
    if (hwnd) {
      SetForegroundWindow(hwnd);
      SetFocus(hwnd);
    }
  }
  bool Exists() const override { return hwnd && IsWindow(hwnd); }
  void* NativeHandle() const override { return hwnd; }
  HWND sheet() const { return page ? GetParent(hwnd) : nullptr; }
  void SetSheetTitle(std::string_view title) override {
    if (HWND s = sheet()) SetWindowTextA(s, std::string(title).c_str());
  }
  std::string SheetTitle() const override {
    char buf[512] = {};
    if (HWND s = sheet()) GetWindowTextA(s, buf, sizeof buf);
    return buf;
  }
  bool SheetChanged() const override { return g_sheet_changed; }
  void SetSheetChanged(bool changed) override { g_sheet_changed = changed; }
  void NotifySheet(bool changed) override {
    if (HWND s = sheet()) SendMessageA(s, changed ? PSM_CHANGED : PSM_UNCHANGED, WPARAM(hwnd), 0);
  }

 private:
  DialogLogic& logic_;
  int template_id_;
  HWND parent_;
  bool modal_;
  std::map<int, FontSpec> fonts_;
  std::map<int, int> icons_;
};

INT_PTR answer(HWND hwnd, LONG_PTR result) {
  SetWindowLongPtrA(hwnd, DWLP_MSGRESULT, result);
  return TRUE;
}

// The one dialog procedure; init is the window's object on WM_INITDIALOG.
INT_PTR handle(HWND hwnd, UINT msg, WPARAM wparam, LPARAM lparam, Win32Dialog* init) {
  auto* d = reinterpret_cast<Win32Dialog*>(GetWindowLongPtrA(hwnd, DWLP_USER));
  if (msg == WM_INITDIALOG) {
    if (!(d = init)) return FALSE;
    SetWindowLongPtrA(hwnd, DWLP_USER, LONG_PTR(d));
    d->hwnd = hwnd;
    return d->logic().init(*d);
  }
  if (!d) return FALSE;
  DialogLogic& logic = d->logic();
  switch (msg) {
    case WM_COMMAND: {
      int id = LOWORD(wparam), code = HIWORD(wparam);
      if (logic.command(*d, id, code)) return TRUE;
      if (!d->page && (id == IDOK || id == IDCANCEL)) {
        logic.close(*d, id);
        return TRUE;
      }
      return FALSE;
    }
    case WM_CLOSE:
      if (d->page) return FALSE;
      logic.close(*d, IDCANCEL);
      return TRUE;
    case WM_NOTIFY: {
      auto* h = reinterpret_cast<NMHDR*>(lparam);
      int code = int(h->code);
      if (code <= int(PSN_FIRST) && code >= int(PSN_LAST)) return answer(hwnd, logic.notify(*d, code));
      return FALSE;
    }
    case WM_TIMER:
      logic.timer(*d, int(wparam));
      return TRUE;
    case WM_HSCROLL: {
      HWND bar = reinterpret_cast<HWND>(lparam);
      int pos = HIWORD(wparam);
      if (bar && (LOWORD(wparam) == SB_THUMBTRACK || LOWORD(wparam) == SB_THUMBPOSITION)) {
        SCROLLINFO si{};
        si.cbSize = sizeof si;
        si.fMask = SIF_TRACKPOS;
        if (GetScrollInfo(bar, SB_CTL, &si)) pos = si.nTrackPos;
      }
      logic.scroll(*d, bar ? GetDlgCtrlID(bar) : 0, LOWORD(wparam), pos);
      return TRUE;
    }
    case WM_MOUSEMOVE:
      logic.mouse_move(*d, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)});
      return FALSE;
    case WM_LBUTTONUP:
      logic.left_up(*d, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)});
      return FALSE;
    case WM_PAINT: {
      PAINTSTRUCT ps;
      BeginPaint(hwnd, &ps);
      EndPaint(hwnd, &ps);
      logic.paint(*d);
      return TRUE;
    }
    case WM_CTLCOLORSTATIC: {
      StaticColours c = logic.static_colours(*d, GetDlgCtrlID(reinterpret_cast<HWND>(lparam)));
      if (!c.custom) return FALSE;
      HDC dc = reinterpret_cast<HDC>(wparam);
      SetBkMode(dc, c.opaque ? OPAQUE : TRANSPARENT);
      SetBkColor(dc, c.background);
      SetTextColor(dc, c.text);
      SelectObject(dc, font_handle(c.font));
      // The background brush is returned so that the dialog manager keeps these colours.
      return INT_PTR(brush_handle(c.background));
    }
    case WM_DESTROY:
      logic.destroyed(*d);
      return FALSE;
    case WM_NCDESTROY:
      d->hwnd = nullptr;   // a modeless window's object outlives it: Exists() says false
      SetWindowLongPtrA(hwnd, DWLP_USER, 0);
      return FALSE;
    default:
      if (msg >= WM_USER && msg < 0xC000) return answer(hwnd, logic.message(*d, msg, wparam, lparam));
      return FALSE;
  }
}

INT_PTR CALLBACK dialog_proc(HWND hwnd, UINT msg, WPARAM wparam, LPARAM lparam) {
  return handle(hwnd, msg, wparam, lparam, msg == WM_INITDIALOG ? reinterpret_cast<Win32Dialog*>(lparam) : nullptr);
}

INT_PTR CALLBACK page_proc(HWND hwnd, UINT msg, WPARAM wparam, LPARAM lparam) {
  Win32Dialog* init = nullptr;
  if (msg == WM_INITDIALOG) init = reinterpret_cast<Win32Dialog*>(reinterpret_cast<PROPSHEETPAGEA*>(lparam)->lParam);
  return handle(hwnd, msg, wparam, lparam, init);
}

const SheetSpec* g_sheet_spec = nullptr;

int CALLBACK sheet_callback(HWND hwnd, UINT msg, LPARAM lparam) {
  if (msg == PSCB_PRECREATE && lparam && g_sheet_spec && g_sheet_spec->no_context_help) {
    // An extended template has 0xFFFF as its second 16-bit word and its style at byte 12.
    auto* words = reinterpret_cast<WORD*>(lparam);
    DWORD* style = words[1] == 0xFFFF ? reinterpret_cast<DWORD*>(reinterpret_cast<BYTE*>(lparam) + 12)
                                      : reinterpret_cast<DWORD*>(lparam);
    *style &= ~DWORD(DS_CONTEXTHELP);
  } else if (msg == PSCB_INITIALIZED && g_sheet_spec) {
    if (g_sheet_spec->ok_text) SetDlgItemTextA(hwnd, IDOK, g_sheet_spec->ok_text);
    if (g_sheet_spec->cancel_text) SetDlgItemTextA(hwnd, IDCANCEL, g_sheet_spec->cancel_text);
  }
  return 0;
}

}  // namespace

namespace sys {

bool HasSystemDialogs() { return true; }

std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  ActivationScope scope;
  HWND owner = parent ? static_cast<HWND>(parent->NativeHandle()) : nullptr;
  Win32Dialog d(logic, template_id, owner, true);
  INT_PTR r = DialogBoxParamA(module(), MAKEINTRESOURCEA(template_id), owner, dialog_proc, LPARAM(&d));
  return r;
}

Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  ActivationScope scope;
  HWND owner = parent ? static_cast<HWND>(parent->NativeHandle()) : nullptr;
  auto* d = new Win32Dialog(logic, template_id, owner, false);   // outlives its window (Exists)
  if (!CreateDialogParamA(module(), MAKEINTRESOURCEA(template_id), owner, dialog_proc, LPARAM(d))) {
    delete d;
    return nullptr;
  }
  ShowWindow(static_cast<HWND>(d->NativeHandle()), SW_SHOW);
  return d;
}

std::intptr_t RunPropertySheet(const SheetSpec& spec, Dialog* parent) {
  ActivationScope scope;
  std::vector<std::unique_ptr<Win32Dialog>> dialogs;
  std::vector<PROPSHEETPAGEA> pages;
  HWND owner = parent ? static_cast<HWND>(parent->NativeHandle()) : nullptr;
  for (const SheetPage& p : spec.pages) {
    dialogs.push_back(std::make_unique<Win32Dialog>(*p.logic, p.template_id, owner, false));
    dialogs.back()->page = true;
    PROPSHEETPAGEA psp{};
    psp.dwSize = sizeof psp;
    psp.dwFlags = PSP_DEFAULT;
    psp.hInstance = module();
    psp.pszTemplate = MAKEINTRESOURCEA(p.template_id);
    psp.pfnDlgProc = page_proc;
    psp.lParam = LPARAM(dialogs.back().get());
    pages.push_back(psp);
  }
  PROPSHEETHEADERA h{};
  h.dwSize = sizeof h;
  h.dwFlags = PSH_PROPSHEETPAGE | PSH_USECALLBACK;
  h.hwndParent = owner;
  h.hInstance = module();
  h.pszCaption = spec.caption.c_str();
  h.nPages = UINT(pages.size());
  h.ppsp = pages.data();
  h.pfnCallback = sheet_callback;
  g_sheet_spec = &spec;
  g_sheet_changed = false;
  INT_PTR r = PropertySheetA(&h);
  g_sheet_spec = nullptr;
  if (r < 0) platform::SetLastError(GetLastError());
  return r;
}

int ShowMessageBox(Dialog* owner, std::string_view text, std::string_view caption, std::uint32_t style) {
  return MessageBoxA(owner ? static_cast<HWND>(owner->NativeHandle()) : nullptr, std::string(text).c_str(),
                     std::string(caption).c_str(), style);
}

void SetSystemCursor(CursorShape shape) {
  LPCSTR id = shape == CursorShape::Wait ? MAKEINTRESOURCEA(32514) : shape == CursorShape::Hand ? MAKEINTRESOURCEA(32649)
                                                                                                : MAKEINTRESOURCEA(32512);
  ::SetCursor(LoadCursorA(nullptr, id));
}

void OpenWebAddress(std::string_view url) {
  ShellExecuteA(nullptr, "open", std::string(url).c_str(), nullptr, "", SW_SHOWNORMAL);
}

int ScreenPixelsPerInchY() {
  HDC dc = GetDC(nullptr);
  int v = GetDeviceCaps(dc, LOGPIXELSY);
  ReleaseDC(nullptr, dc);
  return v;
}

Colour SystemColour(int index) { return GetSysColor(index); }

void* DefaultResourceModule() {
  HMODULE m = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&DefaultResourceModule), &m);
  return m;
}

void InitDialogSystem() {
  INITCOMMONCONTROLSEX icc{sizeof icc, ICC_WIN95_CLASSES | ICC_PROGRESS_CLASS | ICC_STANDARD_CLASSES};
  InitCommonControlsEx(&icc);
}

void* FindModuleHandle(const char* file_name) { return GetModuleHandleA(file_name); }

}  // namespace sys

}  // namespace platform
