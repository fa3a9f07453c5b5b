// The open-file dialog: the system's, or the in-memory stand-in.
#include "platform/file_chooser.h"

#include <deque>
#include <mutex>

#include "platform/file_chooser_sys.h"

namespace platform {
namespace {

std::mutex g_lock;
std::deque<std::string> g_answers;
std::vector<OpenFileRequest> g_requests;
std::function<bool(const OpenFileRequest&, std::string&)> g_sink;

}  // namespace

bool ChooseFileToOpen(Dialog* owner, const OpenFileRequest& request, std::string& path) {
  if (!MemoryDialogsInUse()) return sys::ChooseFileToOpen(owner, request, path);
  std::string answer;
  {
    std::unique_lock lock(g_lock);
    g_requests.push_back(request);
    if (!g_answers.empty()) {
      answer = std::move(g_answers.front());
      g_answers.pop_front();
    } else if (auto sink = g_sink) {
      // Asked without the lock: the sink waits for a person.
      lock.unlock();
      const bool chosen = sink(request, answer);
      lock.lock();
      if (!chosen) answer.clear();
    }
  }
  if (answer.empty()) return false;
  path = std::move(answer);
  return true;
}

namespace memory_file_chooser {

void AnswerNext(std::string path) {
  std::lock_guard lock(g_lock);
  g_answers.push_back(std::move(path));
}

std::vector<OpenFileRequest> Requests() {
  std::lock_guard lock(g_lock);
  return g_requests;
}

void Reset() {
  std::lock_guard lock(g_lock);
  g_answers.clear();
  g_requests.clear();
  g_sink = nullptr;
}

void SetSink(std::function<bool(const OpenFileRequest&, std::string&)> sink) {
  std::lock_guard lock(g_lock);
  g_sink = std::move(sink);
}

}  // namespace memory_file_chooser
}  // namespace platform
