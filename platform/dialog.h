// Dialog windows spoken to by control id. A window's logic (what happens on start, on a command,
// on a property-sheet notification, a timer, a scroll or a click) is written once as a DialogLogic
// against the Dialog interface, and runs on either backend:
//   - Win32 (platform/win32/dialog.cpp): real dialogs and property sheets made from the module's
//     dialog templates; the dialog procedures forward to the logic.
//   - in memory (platform/dialog_memory.h): a dialog built from the same resource description
//     (resources/dialogs.inc), whose controls a test sets and whose commands it sends; it is also
//     what the POSIX build runs, where there is no screen.
// The numbers below (notification codes, message-box styles and answers) are Win32's own, so that
// the logic reads like a dialog procedure and the Win32 backend passes them through unchanged.
// Text is 8-bit (the ANSI code page on Windows).
#pragma once
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace platform {

// ---- Resource description: dialog templates as data (filled from resources/dialogs.inc) ----

enum class ControlKind : std::uint8_t {
  Text,       // static text (left aligned)
  CenterText, // static text, centred
  Link,       // static text, centred, notifies clicks (SS_NOTIFY): a hyperlink
  Icon,       // static icon; text is the icon resource id in decimal ("1") or empty
  Frame,      // sunken static used as a drawing surface
  Group,      // group box
  Button,     // push button
  DefButton,  // default push button
  Check,      // auto check box
  Radio,      // auto radio button
  Edit,       // edit box
  List,       // list box
  Combo,      // drop-down list (CBS_DROPDOWNLIST)
  HScroll,    // horizontal scroll bar
  Progress,   // progress bar (comctl32)
};

// Control flags (a subset of the Win32 styles, named by what they do).
inline constexpr std::uint32_t kCtlGroup = 0x1;      // WS_GROUP: starts a group of radio buttons
inline constexpr std::uint32_t kCtlNumber = 0x2;     // ES_NUMBER: digits only
inline constexpr std::uint32_t kCtlMulti = 0x4;      // ES_MULTILINE | ES_WANTRETURN
inline constexpr std::uint32_t kCtlReadOnly = 0x8;   // ES_READONLY
inline constexpr std::uint32_t kCtlVScroll = 0x10;   // WS_VSCROLL
inline constexpr std::uint32_t kCtlHidden = 0x20;    // not WS_VISIBLE at start
inline constexpr std::uint32_t kCtlDisabled = 0x40;  // WS_DISABLED at start
inline constexpr std::uint32_t kCtlTabStops = 0x80;  // LBS_USETABSTOPS (list box)
inline constexpr std::uint32_t kCtlSunken = 0x100;   // SS_SUNKEN (static)

struct ControlDesc {
  int id;              // -1 for controls that are never addressed
  ControlKind kind;
  const char* text;    // initial text
  short x, y, w, h;    // dialog units
  std::uint32_t flags; // kCtl...
};

struct DialogDesc {
  int id;                 // template (resource) id
  const char* title;      // caption
  short w, h;             // dialog units
  const char* face;       // font face
  int points;             // font size
  bool page;              // a property-sheet page (child) rather than a window of its own
  std::span<const ControlDesc> controls;
};

// The table the in-memory backend builds its dialogs from (the resources library registers it,
// resources/resources.h). Returns nullptr for an unknown template id.
void SetDialogDescriptions(std::span<const DialogDesc> table);
const DialogDesc* FindDialogDescription(int template_id);

// ---- Codes (Win32 numbering) ----

// WM_COMMAND notification codes.
inline constexpr int kBnClicked = 0;        // BN_CLICKED, also STN_CLICKED of a notifying static
inline constexpr int kEnSetFocus = 0x100;   // EN_SETFOCUS
inline constexpr int kEnKillFocus = 0x200;  // EN_KILLFOCUS
inline constexpr int kEnChange = 0x300;     // EN_CHANGE
inline constexpr int kEnUpdate = 0x400;     // EN_UPDATE
inline constexpr int kCbnSelChange = 1;     // CBN_SELCHANGE (and LBN_SELCHANGE)
// Property-sheet notifications (WM_NOTIFY codes from the sheet).
inline constexpr int kPsnSetActive = -200;  // PSN_SETACTIVE
inline constexpr int kPsnKillActive = -201; // PSN_KILLACTIVE
inline constexpr int kPsnApply = -202;      // PSN_APPLY
inline constexpr std::intptr_t kPsnRetInvalidNoChangePage = 2;   // PSNRET_INVALID_NOCHANGEPAGE: the page stays
inline constexpr int kPsnReset = -203;      // PSN_RESET
// Scroll-bar request codes (WM_HSCROLL).
inline constexpr int kSbLineLeft = 0, kSbLineRight = 1, kSbPageLeft = 2, kSbPageRight = 3, kSbThumbPosition = 4,
                     kSbThumbTrack = 5, kSbLeft = 6, kSbRight = 7, kSbEndScroll = 8;
// Command ids of the standard buttons.
inline constexpr int kIdOk = 1, kIdCancel = 2;
// Message-box styles and answers (MB_..., ID...).
inline constexpr std::uint32_t kMbOk = 0x0, kMbOkCancel = 0x1, kMbYesNoCancel = 0x3, kMbYesNo = 0x4;
inline constexpr std::uint32_t kMbIconError = 0x10, kMbIconQuestion = 0x20, kMbIconExclamation = 0x30,
                               kMbIconInformation = 0x40;
inline constexpr std::uint32_t kMbTaskModal = 0x2000, kMbSetForeground = 0x10000, kMbTopmost = 0x40000;
inline constexpr int kIdYes = 6, kIdNo = 7;
// First message number free for a window's private messages (WM_USER). Smaller private numbers
// (such as 3029 or 0x2AB5, which are above it) are also delivered to DialogLogic::message.
inline constexpr std::uint32_t kWmUser = 0x400;

// ---- Values the interface passes ----

struct FontSpec {
  const char* face;   // "MS Shell Dlg", "Courier New", ...
  int points;         // height: -(points * vertical pixels per inch / 72)
  int weight;         // 400 normal, 700 bold
  bool underline;
};
inline constexpr FontSpec kFontDialog{"MS Shell Dlg", 8, 400, false};
inline constexpr FontSpec kFontBold{"MS Shell Dlg", 8, 700, false};
inline constexpr FontSpec kFontLink{"MS Shell Dlg", 8, 400, true};
inline constexpr FontSpec kFontFixed{"Courier New", 8, 400, false};
bool operator==(const FontSpec& a, const FontSpec& b);

enum class CursorShape { Arrow, Wait, Hand };

struct DlgPoint { int x, y; };                     // pixels, the dialog's client coordinates
struct DlgRect { int left, top, right, bottom; };  // pixels, the dialog's client coordinates
struct ScrollInfo { int min, max, pos; };
// An RGB colour as Win32's COLORREF: 0x00BBGGRR.
using Colour = std::uint32_t;
inline constexpr Colour Rgb(int r, int g, int b) { return Colour(r) | Colour(g) << 8 | Colour(b) << 16; }

// How a static control is painted (WM_CTLCOLORSTATIC): the default look, or a link.
struct StaticColours {
  bool custom;        // false: the default look
  Colour text;        // text colour
  bool opaque;        // opaque background mode
  FontSpec font;      // font selected for the text
  Colour background;  // background colour (and the brush the backend answers with)
};
// System colours (GetSysColor) by index.
inline constexpr int kColorMenu = 4, kColorWindow = 5, kColorBtnFace = 15;
Colour SystemColour(int index);   // in memory: a fixed light palette in which menu and button face agree

class Dialog;

// What a window does. Every handler defaults to doing nothing (and answers as a dialog procedure
// that did not handle the message would).
class DialogLogic {
 public:
  virtual ~DialogLogic() = default;
  // WM_INITDIALOG. Result: true to let the system set the focus.
  virtual bool init(Dialog&) { return true; }
  // WM_COMMAND: control (or menu/button) id and notification code. Result: handled.
  virtual bool command(Dialog&, int /*id*/, int /*code*/) { return false; }
  // WM_NOTIFY from the property sheet (kPsn...). The result is the page's answer (DWLP_MSGRESULT:
  // 0 lets the sheet go on, PSNRET_INVALID_NOCHANGEPAGE (2) keeps the page on PSN_APPLY, ...).
  virtual std::intptr_t notify(Dialog&, int /*code*/) { return 0; }
  // WM_TIMER for a timer the logic started with Dialog::SetTimer.
  virtual void timer(Dialog&, int /*timer_id*/) {}
  // WM_HSCROLL from scroll bar control id: request code (kSb...) and the thumb position.
  virtual void scroll(Dialog&, int /*id*/, int /*code*/, int /*pos*/) {}
  // Mouse over the dialog and release of its left button, in the dialog's client pixels.
  virtual void mouse_move(Dialog&, DlgPoint) {}
  virtual void left_up(Dialog&, DlgPoint) {}
  // WM_PAINT of the dialog, after the system painted it: the logic may draw on a control then.
  virtual void paint(Dialog&) {}
  // WM_CTLCOLORSTATIC for a static control: its colours, or {false} for the default look.
  virtual StaticColours static_colours(Dialog&, int /*id*/) { return {}; }
  // A private message (kWmUser and above) posted or sent to the window. Result as the window's.
  virtual std::intptr_t message(Dialog&, std::uint32_t /*msg*/, std::uintptr_t /*wparam*/, std::intptr_t /*lparam*/) {
    return 0;
  }
  // The close box, or OK/Cancel of a window of its own (not of a page), when command() did not
  // handle them. The default ends the window with the command id.
  virtual void close(Dialog& d, int id);
  // The window is being destroyed (WM_DESTROY): the last call the logic receives for it.
  virtual void destroyed(Dialog&) {}
};

// One open dialog, page or window. Controls are named by id; an id the dialog does not have is
// ignored by setters and reads as empty / 0 / false / -1.
class Dialog {
 public:
  virtual ~Dialog() = default;
  virtual int TemplateId() const = 0;
  virtual bool HasControl(int id) const = 0;

  // Text of a control (GetDlgItemTextA / SetDlgItemTextA).
  virtual std::string Text(int id) const = 0;
  virtual void SetText(int id, std::string_view text) = 0;
  // The control's text as an unsigned number (GetDlgItemInt, unsigned): ok false and 0 when it is
  // not a number. SetNumber writes one (SetDlgItemInt, unsigned).
  virtual std::uint32_t Number(int id, bool* ok = nullptr) const = 0;
  virtual void SetNumber(int id, std::uint32_t value) = 0;
  // Check state of a check box or radio button.
  virtual bool Checked(int id) const = 0;
  virtual void SetChecked(int id, bool checked) = 0;
  virtual bool Enabled(int id) const = 0;
  virtual void Enable(int id, bool enabled) = 0;
  virtual bool Visible(int id) const = 0;
  virtual void Show(int id, bool visible) = 0;
  virtual void Focus(int id) = 0;

  // List boxes and drop-down lists: items with an integer each (item data).
  virtual int AddItem(int id, std::string_view text, std::intptr_t data = 0) = 0;   // returns its index
  virtual void ClearItems(int id) = 0;
  virtual int ItemCount(int id) const = 0;
  virtual std::string ItemText(int id, int index) const = 0;
  virtual std::intptr_t ItemData(int id, int index) const = 0;
  virtual int Selection(int id) const = 0;            // -1: none
  virtual void Select(int id, int index) = 0;         // -1 clears the selection
  // Tab stops of a list box or multi-line edit, in dialog-template units (LB_/EM_SETTABSTOPS).
  virtual void SetTabStops(int id, std::initializer_list<int> stops) = 0;

  // Scroll bars.
  virtual void SetScrollRange(int id, int min, int max) = 0;
  virtual void SetScrollPos(int id, int pos) = 0;
  virtual ScrollInfo Scroll(int id) const = 0;

  // Fonts, icons, cursors, progress bars.
  virtual void SetFont(int id, const FontSpec& font) = 0;         // WM_SETFONT with redraw
  virtual FontSpec Font(int id) const = 0;                        // the last font set (kFontDialog before)
  virtual void SetIcon(int id, int icon_resource, int size_px) = 0;   // STM_SETICON; size 0: the system's size
  virtual int Icon(int id) const = 0;                             // resource id shown, 0 for none
  virtual void SetClassCursor(int id, int cursor_resource) = 0;   // the cursor of the control's window class
  virtual void SetProgressRange(int id, int min, int max, int step) = 0;
  virtual void StepProgress(int id) = 0;                          // PBM_STEPIT
  virtual int Progress(int id) const = 0;                         // current position

  // The window itself.
  virtual std::string Title() const = 0;
  virtual void SetTitle(std::string_view title) = 0;
  virtual DlgRect ControlRect(int id) const = 0;      // pixels, dialog client coordinates
  virtual DlgPoint CursorPos() const = 0;              // the mouse, dialog client coordinates
  virtual void SetCursor(CursorShape shape) = 0;       // the cursor shown now over the window
  virtual void SetCursorResource(int cursor_resource) = 0;
  virtual void SetTimer(int timer_id, std::uint32_t ms) = 0;
  virtual void KillTimer(int timer_id) = 0;
  virtual void Invalidate(int id) = 0;                 // repaint control id (0: the whole window)
  // Messages to this window's logic (DialogLogic::message): Post returns at once and may be called
  // from any thread; Send runs the handler and returns its result (the window's own thread only).
  virtual void Post(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) = 0;
  virtual std::intptr_t Send(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) = 0;
  virtual void PostToParent(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) = 0;
  // Ends the window: a modal one returns result from RunModalDialog, a modeless one is destroyed.
  virtual void End(std::intptr_t result) = 0;
  virtual void BringToFront() = 0;
  virtual bool Exists() const = 0;                     // false once destroyed
  virtual void* NativeHandle() const = 0;              // HWND on Windows, nullptr in memory

  // The property sheet this page belongs to (nothing happens on a window of its own).
  virtual void SetSheetTitle(std::string_view title) = 0;
  virtual std::string SheetTitle() const = 0;
  // The sheet's changed flag (unapplied edits on some page), shared by all its pages.
  virtual bool SheetChanged() const = 0;
  virtual void SetSheetChanged(bool changed) = 0;
  // PSM_CHANGED / PSM_UNCHANGED for this page (enables / disables Apply).
  virtual void NotifySheet(bool changed) = 0;
};

// ---- Running windows (the backend chosen by UseMemoryDialogs) ----

// A modal dialog from template template_id owned by parent (may be nullptr). Returns the result
// passed to Dialog::End, or -1 when the window could not be made (LastError()).
std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic);
// A modeless dialog; it lives until End (or its parent's end). nullptr when it could not be made.
Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic);

struct SheetPage {
  int template_id;
  DialogLogic* logic;
};
struct SheetSpec {
  std::string caption;                    // the sheet's title
  std::span<const SheetPage> pages;       // in order
  const char* ok_text = nullptr;          // replaces the OK button's text when set ("&OK")
  const char* cancel_text = nullptr;      // replaces the Cancel button's text when set ("&Cancel")
  bool no_context_help = true;            // clears DS_CONTEXTHELP of the sheet's template
};
// A modal property sheet. Returns 1 when it closed with OK, 0 with Cancel, -1 when it could not be
// made (LastError()).
std::intptr_t RunPropertySheet(const SheetSpec& spec, Dialog* parent);

// ---- The user-interface environment ----

// MessageBoxA owned by owner's window (nullptr: no owner). Returns the button pressed (kIdOk ...).
int ShowMessageBox(Dialog* owner, std::string_view text, std::string_view caption, std::uint32_t style);
// The system cursor now (SetCursor with a standard cursor).
void SetSystemCursor(CursorShape shape);
// Opens a web address with the shell's "open" verb (ShellExecuteA); the result is not reported.
void OpenWebAddress(std::string_view url);
// The screen's vertical pixels per inch (LOGPIXELSY); 96 in memory.
int ScreenPixelsPerInchY();
// The module whose resources (templates, icons, cursors, strings) the Win32 backend loads: by
// default the module that holds this code (the .cpl, or a test program linked with the resources).
void SetResourceModule(void* module);
void* ResourceModule();

// Prepares the system's dialogs once per process (InitCommonControlsEx for the classes the
// templates use); nothing in memory.
void InitDialogSystem();
// The handle of a loaded module by file name ("w32tmkr.cpl"); nullptr when it is not loaded
// (always in memory and on POSIX).
void* FindModuleHandle(const char* file_name);

// In-memory dialogs and user interface instead of the system's (always on POSIX). See
// platform/dialog_memory.h for what a test does with them.
void UseMemoryDialogs(bool on);
bool MemoryDialogsInUse();

}  // namespace platform
