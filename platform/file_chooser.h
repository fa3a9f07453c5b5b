// The system's open-file dialog (GetOpenFileNameA), and its in-memory stand-in for tests and for
// systems without one: answers queued by a test, the requests kept for it to read.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "platform/dialog.h"

namespace platform {

struct OpenFileRequest {
  std::string title;          // the dialog's title
  std::string filter_name;    // "Sync Log Files"
  std::string pattern;        // "*.KR"
  std::string default_ext;    // "KR" (added when the user types a name without one)
  std::string initial_dir;    // may be empty
  std::string path;           // the file name shown at first (may be empty)
};

// Lets the user choose an existing file (path and file must exist, long names). True with the
// chosen path (at most 260 characters) in path; false on cancel or failure.
// Windows: OFN_PATHMUSTEXIST | OFN_FILEMUSTEXIST | OFN_LONGNAMES. In memory: the next queued answer.
bool ChooseFileToOpen(Dialog* owner, const OpenFileRequest& request, std::string& path);

namespace memory_file_chooser {
void AnswerNext(std::string path);        // the user picks path ("" cancels)
std::vector<OpenFileRequest> Requests();  // every request made so far
void Reset();                             // forgets both and the sink; without a queued answer the user cancels
// Asked when no answer is queued (the sheet process asks its front end): true with the path chosen.
void SetSink(std::function<bool(const OpenFileRequest&, std::string&)> sink);
}  // namespace memory_file_chooser

}  // namespace platform
