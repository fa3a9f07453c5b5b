// The chronwarden command line: one function per subcommand, handed the arguments after its name.
// Exit codes: 0 success, 1 the operation failed, 2 the command line was wrong.
#pragma once
#include <span>
#include <string_view>

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

// Prints "chronwarden: <message>" and the hint to --help on standard error; returns kExitUsage.
int UsageError(std::string_view command, std::string_view message);
bool IsHelp(std::string_view arg);
