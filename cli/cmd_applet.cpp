// chronwarden applet [--machine NAME] --stdio: the Control Panel applet's property sheet as a
// process that a front end (the Cockpit page) drives over standard input and output.
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "cli/sheet_session.h"

namespace {

const char kUsage[] =
    "Usage: chronwarden applet [--machine NAME] --stdio\n\n"
    "Runs the Control Panel applet's property sheet (Client, Server, Agent, Service, About) for this\n"
    "machine (or NAME) without a screen, driven over standard input and output: it sends the pages'\n"
    "templates and every change of their controls, message boxes and windows as JSON lines, and takes\n"
    "what a person does (clicks, typing, tabs, OK, Cancel, Apply, answers) as JSON lines. The Cockpit\n"
    "page of Chronwarden runs it; the protocol is described in docs/sheet-protocol.md.\n"
    "  --machine NAME  configure NAME's time service instead of this machine's\n"
    "  --stdio         speak the line protocol on standard input and output (required)\n"
    "The sheet ends with OK or Cancel; the end of the input, SIGTERM or SIGHUP cancel it.\n"
    "Exit code: 0 the sheet closed (OK, Cancel or the end of the input), 1 the applet could not\n"
    "start (the reason was sent as a message box), 2 for a wrong command line.\n";

}  // namespace

int CmdApplet(CommandArgs args) {
  std::string machine;
  bool stdio = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (IsHelp(args[i])) {
      std::fputs(kUsage, stdout);
      return kExitOk;
    }
    if (args[i] == "--stdio") {
      stdio = true;
    } else if (args[i] == "--machine") {
      if (++i == args.size() || args[i].empty()) return UsageError("applet", "--machine needs a machine name");
      machine = std::string(args[i]);
    } else {
      return UsageError("applet", "unknown option '" + std::string(args[i]) + "'");
    }
  }
  if (!stdio) return UsageError("applet", "the sheet has no screen here: give --stdio and drive it over the line protocol");
  return RunSheetSession(machine);
}
