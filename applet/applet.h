// The Control Panel applet: its entry (the Control Panel's messages and the private ones of
// programs that drive it), the launch with its checks, the property sheet and the helpers every
// page shares (message box, wait cursor, administrator check, registry access test, apply step).
#pragma once
#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "applet/install.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/dialog.h"
#include "platform/sync.h"
#include "platform/thread.h"

// Control Panel messages (CPL_...) and the private ones.
inline constexpr std::uint32_t kCplInit = 1;
inline constexpr std::uint32_t kCplGetCount = 2;
inline constexpr std::uint32_t kCplInquire = 3;
inline constexpr std::uint32_t kCplDblClk = 5;
inline constexpr std::uint32_t kCplExit = 8;
inline constexpr std::uint32_t kCplSetMachine = 0x11223344;   // first parameter: the machine name (char*)
inline constexpr std::uint32_t kCplInstall = 0x11223345;      // launch in install mode
inline constexpr std::uint32_t kCplRemove = 0x11223346;       // launch in remove mode
inline constexpr std::uint32_t kCplQuiet = 0x11223347;        // second parameter present: quiet
inline constexpr std::uint32_t kCplSheet = 0x11223348;        // launch the property sheet

// The applet information of CPL_INQUIRE (CPLINFO's layout).
struct CplInfo {
  std::int32_t icon;   // icon resource
  std::int32_t name;   // string resource of the name
  std::int32_t info;   // string resource of the description
  std::intptr_t data;  // user data
};

// Process-wide state of the applet (one launch at a time).
struct AppletState {
  char target[256];              // target machine argument: trimmed, upper-cased; "" the local machine
  RegTarget reg;                 // the target's registry, opened by the launch, local between launches
  int quiet;                     // message boxes show nothing and answer 1
  void* module;                  // the module's own handle (resources)
  int win2k_target;              // 1: a system above 2048 configures a remote 2048 target
  std::uint32_t target_level;    // OS level of the target
  std::uint32_t target_type;     // server type bits of the target
  std::uint32_t wait_depth;      // nesting of the wait cursor
  platform::Dialog* sheet_page;  // a page of the open sheet (the sheet's title goes through it)
  // The clock status worker (created suspended by the launch, resumed by the Client page) and
  // its two events: stop (manual reset) and check now.
  platform::ThreadHandle status_thread;
  platform::EventHandle status_stop;
  platform::EventHandle status_check;
  std::uint32_t pages_shown[5];  // template ids of the last sheet's pages, in order (0: none)
  platform::Dialog* helper;      // a window the pages opened (the drift graph), closed with the sheet
  W32tSettings settings;         // the shared settings record the pages edit
  std::uint32_t save_status;     // the last Apply's save: 0, or the registry's error of the first write that failed
};
extern AppletState g_applet;

// The status worker the launch creates (suspended); nullptr: none is made.
extern platform::ThreadFunction g_status_thread_fn;

// Service control as the applet calls it (config/service_control.h by default; tests put their
// own in). Arguments and results as ControlTimeService, RestartService and TriggerResync.
struct AppletServices {
  int (*control)(platform::Dialog* owner, const char* machine, std::uint32_t code, std::uint32_t show_error);
  int (*restart)(platform::Dialog* owner, const char* machine, const char* service);
  std::uint32_t (*resync)(platform::Dialog* owner, const char* machine, std::uint32_t wait, std::uint32_t flags);
};
extern AppletServices g_applet_services;
// The page logic of each template (applet/pages.cpp).
platform::DialogLogic& applet_page_logic(int template_id);

// The entry: Control Panel and private messages. window is the caller's window (may be null).
std::intptr_t applet_entry(void* window, std::uint32_t message, std::intptr_t first, std::intptr_t second);
// Makes machine the applet's target as CPL_SETMACHINE names it (trimmed, upper-cased; this computer
// under any of its names is "") and opens its registry into g_applet.reg, with the environment
// read from it. 1, or 0 with the registry's error as the last error.
int applet_open_target(const char* machine);

// Message box with the caption "Chronwarden" (text formatted into 509 characters); style 0 means
// 0x42040 (information, task-modal, topmost). Quiet: shows nothing and returns 1.
int applet_message(platform::Dialog* owner, std::uint32_t style, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Wait cursor: begin (1) nests; end (0) restores the arrow when the last begin ends.
void applet_wait_cursor(int begin);
int applet_is_admin();
// Proves that the registry of machine (empty: this one) may be written under key (empty: the
// default); returns 1, or 0 with the text of what failed in message (at least 512 bytes).
int applet_access_test(platform::Dialog* owner, const char* machine, const char* key, char* message);
// The shared apply step (page: the page's window): saves the settings, tells the time service and
// triggers a resync; returns the trigger's result (Sync Now reports it).
std::intptr_t applet_apply(platform::Dialog& page);
// Every page's PSN_APPLY: the shared apply step, answered PSNRET_NOERROR (0) once the settings are
// saved, whatever the resync gave: a failed resync was already told and must not keep the sheet
// open (a sheet reads 1 or 2 as "invalid").
std::intptr_t applet_apply_notification(platform::Dialog& page);
// The launch: mode is kCplDblClk, kCplSheet, kCplInstall or kCplRemove. Returns 1 or 0 (the code in
// the last-error value).
std::intptr_t applet_launch(void* window, std::uint32_t mode);
// What install and remove work with in this process: the launch's target, its server type and
// quiet flag, g_applet_services' control and applet_message.
InstallContext applet_install_context();
// rundll32 entry: the command line "-install" / "-remove" (also "/install", any case; "-quiet"
// silences every message). Returns the message-box result, or 0.
std::intptr_t applet_rundll(void* window, const char* command_line);
// Whether a sheet launch brings the provider up to date: the registered version (may be empty),
// this one, and whether the provider is installed.
int applet_needs_upgrade(const char* registered, const char* mine, int service_installed);
// The sheet's pages for an OS level: their template ids in order into ids; returns how many.
int applet_sheet_pages(std::uint32_t level, int service_installed, int ids[5]);
// The sheet's title: "Windows Time Service - " and the target, or the local computer name.
void applet_set_sheet_title(platform::Dialog& page);
// "Chronwarden Version <version>\r\n<copyright>": the product line at the top of the pages.
std::string applet_version_line();
// The documentation page for subject ("abouttab", "clienttab", ...).
void applet_open_help(const char* subject);
// Link colours of the documentation link (WM_CTLCOLORSTATIC of 2280).
platform::StaticColours applet_link_colours();
// Hand cursor and host name on the documentation link of a page.
void applet_setup_link(platform::Dialog& page);
// A page's edit: the sheet's changed flag is set and the sheet is told that this page changed
// (PSM_CHANGED), which enables Apply.
void applet_mark_changed(platform::Dialog& page);
// The first at_most characters of text without the blanks, tabs, carriage returns and line feeds
// at either end (the pages' reading of an edit box).
std::string applet_trimmed(std::string_view text, std::size_t at_most = std::string_view::npos);
// Refreshes the Client page after the Service page started or stopped the time service: its
// "&Sync Now" button and, with time_source, its current time source. Set by the Client page while
// it exists; nullptr: nothing to refresh.
extern void (*g_applet_client_refresh)(bool time_source);
