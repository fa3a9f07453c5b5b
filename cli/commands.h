// The chronwarden command line: one function per subcommand, handed the arguments after its name.
// Exit codes: 0 success, 1 the operation failed, 2 the command line was wrong.
#pragma once
#include <charconv>
#include <limits>
#include <span>
#include <string>
#include <string_view>

#include "cli/json_line.h"   // JsonString

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

using CommandArgs = std::span<const std::string_view>;

struct Command {
  std::string_view name;
  std::string_view summary;
  int (*run)(CommandArgs args);
};

int CmdClock(CommandArgs args);
int CmdReport(CommandArgs args);
int CmdHistory(CommandArgs args);
int CmdReg(CommandArgs args);
int CmdOs(CommandArgs args);
int CmdNtp(CommandArgs args);
int CmdConfig(CommandArgs args);
int CmdService(CommandArgs args);
int CmdResync(CommandArgs args);
int CmdInstall(CommandArgs args);
int CmdRemove(CommandArgs args);
int CmdGraph(CommandArgs args);
int CmdKr2(CommandArgs args);
int CmdMonitor(CommandArgs args);
int CmdExporter(CommandArgs args);
int CmdAgent(CommandArgs args);
int CmdStatus(CommandArgs args);
int CmdServer(CommandArgs args);
int CmdApplet(CommandArgs args);

// Prints "chronwarden: <message>" and the hint to --help on standard error; returns kExitUsage.
int UsageError(std::string_view command, std::string_view message);
bool IsHelp(std::string_view arg);

// A whole decimal number that is the whole argument, within [min, max].
template <typename T>
bool ParseNumber(std::string_view text, T& out, T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
  T value{};
  auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc{} || p != text.data() + text.size() || text.empty() || value < min || value > max) return false;
  out = value;
  return true;
}


