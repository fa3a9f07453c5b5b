// Standard input and output of a program that a front end drives over pipes (the sheet process):
// lines in, lines out, and the end of the front end seen as the end of input.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

enum class InputStatus { Line, TooLong, End };

// Makes SIGTERM, SIGHUP and SIGINT end the input (ReadInputLine answers End) instead of the
// process, and a closed output an error of the write instead of SIGPIPE. POSIX; nothing on Windows.
void EndInputOnTermination();
// Ends the input as a termination signal would: a ReadInputLine waiting on another thread answers
// End. For a program that is done before its input is.
void EndInput();
// The next line of standard input without its "\n" (and "\r"). TooLong: a line of more than
// max_bytes, skipped whole. End: end of file, a read error, or a termination signal.
InputStatus ReadInputLine(std::string& line, std::size_t max_bytes);
// Writes text and a "\n" to standard output at once and flushes it. False when the output is gone.
bool WriteOutputLine(std::string_view text);

}  // namespace platform
