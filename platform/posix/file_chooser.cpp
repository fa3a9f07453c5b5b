// No system file dialog on POSIX: the in-memory one always answers, and this end is never reached.
#include "platform/file_chooser_sys.h"

namespace platform::sys {
bool ChooseFileToOpen(Dialog*, const OpenFileRequest&, std::string&) { return false; }
}  // namespace platform::sys
