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

}  // namespace

bool ChooseFileToOpen(Dialog* owner, const OpenFileRequest& request, std::string& path) {
  if (!MemoryDialogsInUse()) return sys::ChooseFileToOpen(owner, request, path);
  std::lock_guard lock(g_lock);
  g_requests.push_back(request);
  if (g_answers.empty()) return false;
  std::string answer = std::move(g_answers.front());
  g_answers.pop_front();
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
}

}  // namespace memory_file_chooser
}  // namespace platform
