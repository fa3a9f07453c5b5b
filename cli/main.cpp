// chronwarden: the command-line face of the time provider and the applet.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "platform/error.h"
#include "platform/error_text.h"

namespace {

constexpr Command kCommands[] = {
    {"clock", "sample the precise clock against the system and fine wall clocks", CmdClock},
    {"history", "list a drift history file's records, or append one", CmdHistory},
    {"report", "write the synchronization summary report of a drift history file", CmdReport},
    {"reg", "query, set, delete and export registry values (product path rules); check the store", CmdReg},
    {"os", "name the local system: text, OS level, architecture", CmdOs},
    {"ntp", "query an NTP server: the local clock's offset from it and the round trip", CmdNtp},
    {"config", "show or change the time service's settings and tell the service", CmdConfig},
    {"service", "status, start, stop, restart or start type of the time service (or another)", CmdService},
    {"resync", "ask the time service to synchronise now", CmdResync},
    {"install", "install the provider module on this or another machine and register it", CmdInstall},
    {"remove", "remove the provider module's registration and move the module aside", CmdRemove},
    {"graph", "draw the drift graph of a drift history file as PNG or SVG", CmdGraph},
    {"kr2", "ask a machine's KR2 responder: identity, status, time, zone, products, history", CmdKr2},
    {"monitor", "poll the KR2 status of many machines at once, one line per machine", CmdMonitor},
    {"exporter", "serve machines' KR2 status to Prometheus over HTTP (/probe, /metrics)", CmdExporter},
    {"agent", "show or set the agent's options, list or clear its source history", CmdAgent},
    {"status", "is the clock synchronized? each NTP server's stratum and variance, the verdict", CmdStatus},
    {"server", "test the machine's NTP server: is the time it serves right?", CmdServer},
    {"applet", "the Control Panel applet's pages, driven over standard input and output (Cockpit)", CmdApplet},
};

void PrintHelp() {
  std::printf(
      "Usage: chronwarden COMMAND [OPTIONS]\n\n"
      "Keeps the machine's clock honest: measures, records, reports.\n\nCommands:\n");
  for (const auto& c : kCommands) std::printf("  %-10s %s\n", std::string(c.name).c_str(), std::string(c.summary).c_str());
  std::printf("\nRun 'chronwarden COMMAND --help' for a command's options.\n"
              "Exit codes: 0 success, 1 the operation failed, 2 the command line was wrong.\n");
}

// A command whose output did not all reach standard output (a full disk, a closed file) failed,
// whatever it printed before.
int Finished(int code) {
  if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return code;
  char text[256];
  std::fprintf(stderr, "chronwarden: cannot write standard output: %s\n",
               SystemErrorText(platform::kErrorWriteFault, text, sizeof text));
  return code == kExitOk ? kExitFailed : code;
}

}  // namespace


bool IsHelp(std::string_view arg) { return arg == "--help" || arg == "-h"; }

int UsageError(std::string_view command, std::string_view message) {
  std::fprintf(stderr, "chronwarden %s: %s\nTry 'chronwarden %s --help'.\n", std::string(command).c_str(),
               std::string(message).c_str(), std::string(command).c_str());
  return kExitUsage;
}

int main(int argc, char** argv) {
  std::vector<std::string_view> args(argv + 1, argv + argc);
  if (args.empty() || IsHelp(args[0])) {
    PrintHelp();
    return Finished(args.empty() ? kExitUsage : kExitOk);
  }
  for (const auto& c : kCommands)
    if (c.name == args[0]) return Finished(c.run(CommandArgs(args).subspan(1)));
  std::fprintf(stderr, "chronwarden: unknown command '%s'\nTry 'chronwarden --help'.\n", std::string(args[0]).c_str());
  return kExitUsage;
}
