// Lines in and out over standard input and output: the splitting into lines, over the backend's
// reads and writes.
#include "platform/stdio.h"

#include <mutex>

#include "platform/stdio_sys.h"

namespace platform {
namespace {

std::string g_pending;   // bytes read past the last line handed out
bool g_ended = false;
std::mutex g_output_lock;

}  // namespace

InputStatus ReadInputLine(std::string& line, std::size_t max_bytes) {
  bool too_long = false;
  for (;;) {
    if (const auto nl = g_pending.find('\n'); nl != std::string::npos) {
      line.assign(g_pending, 0, nl);
      g_pending.erase(0, nl + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (too_long || line.size() > max_bytes) {
        line.clear();
        return InputStatus::TooLong;
      }
      return InputStatus::Line;
    }
    if (g_pending.size() > max_bytes) {   // nothing of a line that is already too long is kept
      too_long = true;
      g_pending.clear();
    }
    if (g_ended) return InputStatus::End;
    char buf[4096];
    const long n = sys::ReadStandardInput(buf, sizeof buf);
    if (n <= 0) {
      g_ended = true;
      if (g_pending.empty() || too_long) return InputStatus::End;
      g_pending += '\n';   // a last line without its end
      continue;
    }
    g_pending.append(buf, std::size_t(n));
  }
}

bool WriteOutputLine(std::string_view text) {
  std::string out(text);
  out += '\n';
  std::lock_guard lock(g_output_lock);
  return sys::WriteStandardOutput(out);
}

}  // namespace platform
