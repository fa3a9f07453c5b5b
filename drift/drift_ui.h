// How the drift code talks to a user: through the applet's windows or through the command line.
// A caller that has a user hands in a DriftUi; "no owner window" is a null DriftUi pointer.
#pragma once

struct DriftLog;

enum class NoticeIcon { Information, Exclamation };

struct DriftUi {
  void* window = nullptr;    // the owner window (HWND on Windows), or null for a user without one
  void* context = nullptr;   // the caller's own data for the callbacks
  // A Yes/No question box (topmost, question icon); true for Yes. Absent: the answer is No.
  bool (*ask_yes_no)(const DriftUi& ui, const char* caption, const char* text) = nullptr;
  // A message box (topmost) with the icon. Absent: nothing is shown.
  void (*notify)(const DriftUi& ui, NoticeIcon icon, const char* caption, const char* text) = nullptr;
  // Lets the user pick a drift log file into log.path; false on cancel. Absent: cancel.
  bool (*choose_file)(const DriftUi& ui, DriftLog& log) = nullptr;
};

inline constexpr const char* kDriftUiCaption = "Chronwarden";
