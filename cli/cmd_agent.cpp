// chronwarden agent show|set|history|clear: the applet's Agent page on the command line. show and
// set run the page itself (in memory) on the machine's settings: show prints what its controls
// hold, set works its controls as a user would and applies as the sheet's Apply does. history and
// clear use the functions under the page.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "applet/agent_page.h"
#include "applet/applet.h"
#include "cli/commands.h"
#include "cli/service_cli.h"
#include "config/address_list.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/dialog_memory.h"
#include "platform/error_text.h"
#include "resources/resources.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden agent show [--machine NAME]\n"
    "       chronwarden agent set FIELD=VALUE... [--machine NAME] [--no-apply]\n"
    "       chronwarden agent history [--machine NAME]\n"
    "       chronwarden agent clear [--yes] [--machine NAME]\n\n"
    "The Chronwarden agent's options and history, as the applet's Agent page has them.\n"
    "  show     prints the options as FIELD=VALUE lines (each with the page's label)\n"
    "  set      changes options as the page does, saves them with the provider's registration and (unless\n"
    "           --no-apply) tells a running time service, as the page's Apply does. A bad field or value\n"
    "           exits 2 and changes nothing; an option the page does not offer now exits 1.\n"
    "  history  the time sources the agent last used, newest first: local time, address and (when\n"
    "           \"DNS Lookups Enabled\") host name, separated by tabs\n"
    "  clear    deletes the drift history (drift.kr) and the list of recently-used servers, after a\n"
    "           question on the terminal that --yes answers\n\n"
    "Fields:\n"
    "  enabled=0|1     Enable the Chronwarden\n"
    "  reference=NAME  Reference NTP Server (empty: the defaults; at most 63 characters)\n"
    "  interval=N      Check Interval in minutes\n"
    "  warn=0|1        Log a warning in Event Viewer if unable to verify the time\n"
    "  error=0|1       Log an error in Event Viewer if verified time is off by more than the threshold\n"
    "  threshold=N     the error threshold in seconds\n"
    "  managers=LIST   KR2 managers: the addresses (a.b.c.d) and prefixes (a.b.c.d/N), separated by\n"
    "                  spaces or commas, that may clear the history and demand a resync over KR2;\n"
    "                  this machine's loopback always may; \"any\" lets every address\n\n"
    "Options:\n"
    "  --machine NAME  the agent of NAME (\\\\NAME or NAME) instead of this machine's\n";

enum class Kind { Check, Text, Number, Addresses };
struct Field {
  const char* name;
  Kind kind;
  int control;
  const char* label;   // as the page shows it, without the access key
};
constexpr Field kFields[] = {
    {"enabled", Kind::Check, IDC_AGENT_ENABLED, "Enable the Chronwarden"},
    {"reference", Kind::Text, IDC_REF_SERVER, "Reference NTP Server: (leave blank to use the defaults)"},
    {"interval", Kind::Number, IDC_INTERVAL, "Check Interval: minutes"},
    {"warn", Kind::Check, IDC_ALERT_UNVERIFIED, "Log a warning in Event Viewer if unable to verify the time"},
    {"error", Kind::Check, IDC_ALERT_OFF, "Log an error in Event Viewer if verified time is off by more than"},
    {"threshold", Kind::Number, IDC_THRESHOLD, "seconds"},
    {"managers", Kind::Addresses, IDC_MANAGERS, "KR2 managers"},
};

const Field* FindField(std::string_view name) {
  for (const Field& f : kFields)
    if (name == f.name) return &f;
  return nullptr;
}

// The value checked as the page's control would take it; false with the reason.
bool CheckValue(const Field& f, std::string& value, std::string& why) {
  switch (f.kind) {
    case Kind::Check:
      if (value == "1" || value == "true" || value == "yes" || value == "on") return value = "1", true;
      if (value == "0" || value == "false" || value == "no" || value == "off") return value = "0", true;
      return why = "expected 0 or 1", false;
    case Kind::Number: {
      std::uint32_t n = 0;
      // The interval is stored in seconds, so its minutes must fit 32 bits once multiplied by 60.
      const std::uint32_t max = f.control == IDC_INTERVAL ? 0xFFFFFFFFu / 60 : 0xFFFFFFFFu;
      if (!ParseNumber(std::string_view(value), n, 0u, max)) return why = "expected a whole number up to " + std::to_string(max), false;
      return true;
    }
    case Kind::Text: {
      value = applet_trimmed(value);
      if (value.size() > 63) return why = "at most 63 characters", false;
      return true;
    }
    case Kind::Addresses: {
      value = applet_trimmed(value);
      if (value.size() > 255) return why = "at most 255 characters", false;
      const AddressList list = ParseAddressList(value);
      if (!list.rejected.empty())
        return why = "\"" + list.rejected.front() + "\" is neither an address (a.b.c.d), a prefix (a.b.c.d/N) nor \"any\"", false;
      return true;
    }
  }
  return false;
}

// Messages of the page (service control failures on Apply) go to standard error and count.
int g_messages = 0;

// The machine's settings loaded and the Agent page started on them, alone in an in-memory sheet.
struct AgentSession {
  platform::SheetPage page{IDD_AGENT, &applet_page_logic(IDD_AGENT)};
  platform::MemorySheet sheet{platform::SheetSpec{"Chronwarden", std::span(&page, 1)}};
  platform::MemoryDialog& Page() { return sheet.Page(0); }
};

// Connects to machine's registry and loads its settings: "" or what failed.
std::string Connect(const std::string& machine) {
  applet_entry(nullptr, kCplInit, 0, 0);
  if (!applet_open_target(machine.c_str())) return "cannot reach the registry of " + machine;
  if (const std::uint32_t st = w32t_load(g_applet.reg, g_applet.settings)) {
    char text[512];
    return SystemErrorText(st, text, sizeof text);
  }
  resources::RegisterDialogs();
  platform::UseMemoryDialogs(true);
  platform::memory_ui::SetSink([](const platform::memory_ui::Box& box) {
    std::fprintf(stderr, "chronwarden agent: %s\n", box.text.c_str());
    ++g_messages;
    return platform::kIdOk;
  });
  return {};
}

int Show(AgentSession& session) {
  platform::MemoryDialog& d = session.Page();
  std::printf("# %s\n", d.Text(IDC_AGENT_NOTE).c_str());
  for (const Field& f : kFields) {
    const std::string value = f.kind == Kind::Check ? (d.Checked(f.control) ? "1" : "0") : d.Text(f.control);
    std::printf("%-22s # %s\n", (std::string(f.name) + "=" + value).c_str(), f.label);
  }
  return kExitOk;
}

int Set(AgentSession& session, std::vector<std::pair<const Field*, std::string>>& edits, bool apply) {
  platform::MemoryDialog& d = session.Page();
  // Boxes that turn on first (they open fields), then the fields, then boxes that turn off: so
  // "error=0 threshold=9" types the threshold before its box closes it, as a user would.
  const auto pass_of = [&](const Field& f, const std::string& value) {
    if (f.kind != Kind::Check) return 1;
    return value == "1" ? 0 : 2;
  };
  for (int pass = 0; pass < 3; ++pass)
    for (auto& [f, value] : edits) {
      if (pass_of(*f, value) != pass) continue;
      if (!d.Visible(f->control)) return CliFailure("agent", std::string(f->name) + ": " + d.Text(IDC_AGENT_NOTE));
      if (!d.Enabled(f->control))
        return CliFailure("agent", std::string(f->name) + " cannot be set while " +
                                       (f->control == IDC_THRESHOLD && d.Checked(IDC_AGENT_ENABLED) ? "error=0" : "enabled=0"));
      if (f->kind == Kind::Check) {
        if (d.Checked(f->control) != (value == "1")) d.Click(f->control);
      } else {
        d.Type(f->control, value);
      }
    }
  if (apply) {
    session.sheet.Apply();
  } else {
    d.SendNotify(platform::kPsnKillActive);
    if (const std::uint32_t st = w32t_save(g_applet.reg, g_applet.settings, 1)) {
      char text[512];
      return CliFailure("agent", std::string("the settings were not saved: ") + SystemErrorText(st, text, sizeof text));
    }
  }
  if (g_messages) return kExitFailed;   // (a save the store refused on Apply is one of them)
  std::printf("Agent settings saved%s%s.\n", g_applet.target[0] ? " on " : "", g_applet.target);
  return kExitOk;
}

int History() {
  const bool names = g_applet.settings.dns_lookups_enabled != 0;
  for (const SourceHistoryEntry& e : agent_history_entries(agent_read_source_history()))
    std::printf("%s\n", agent_history_line(e, names ? agent_lookup_name(e.address).c_str() : "").c_str());
  return kExitOk;
}

int Clear(bool yes) {
  if (!yes) {
    std::string question = kClearHistoryQuestion;
    while (!question.empty() && (question.back() == '\n' || question.back() == '\r')) question.pop_back();
    std::fprintf(stderr, "%s [y/N] ", question.c_str());
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") return CliFailure("agent", "nothing was cleared");
  }
  if (const std::uint32_t status = agent_clear_history(g_applet.target))
    return CliFailure("agent", "the synchronization history was not cleared: " + SystemErrorLine(status));
  std::printf("Synchronization history cleared.\n");
  return kExitOk;
}

}  // namespace

int CmdAgent(CommandArgs args) {
  if (args.empty()) return UsageError("agent", "show, set, history or clear is needed");
  if (IsHelp(args[0])) return std::fputs(kHelp, stdout), kExitOk;
  const std::string_view verb = args[0];
  if (verb != "show" && verb != "set" && verb != "history" && verb != "clear")
    return UsageError("agent", "unknown action '" + std::string(verb) + "'");
  std::string machine;
  bool apply = true, yes = false;
  std::vector<std::pair<const Field*, std::string>> edits;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--machine" && i + 1 < args.size()) {
      machine = args[++i];
    } else if (a == "--no-apply" && verb == "set") {
      apply = false;
    } else if (a == "--yes" && verb == "clear") {
      yes = true;
    } else if (verb == "set" && a.find('=') != std::string_view::npos && a[0] != '-') {
      const std::string name(a.substr(0, a.find('=')));
      std::string value(a.substr(a.find('=') + 1)), why;
      const Field* f = FindField(name);
      if (!f) return UsageError("agent", "unknown field '" + name + "'");
      if (!CheckValue(*f, value, why)) return UsageError("agent", "bad value for " + name + ": " + why);
      edits.emplace_back(f, value);
    } else {
      return UsageError("agent", "unexpected argument '" + std::string(a) + "'");
    }
  }
  if (verb == "set" && edits.empty()) return UsageError("agent", "set needs FIELD=VALUE");
  if (const std::string failed = Connect(machine); !failed.empty()) return CliFailure("agent", failed);
  if (verb == "history") return History();
  if (verb == "clear") return Clear(yes);
  AgentSession session;
  if (!session.sheet.Start()) return CliFailure("agent", "the Agent page could not be made");
  return verb == "show" ? Show(session) : Set(session, edits, apply);
}
