// Operating-system facts on POSIX: the system presents itself as an NT-family platform (id 2) of
// version 10.0, so that nothing version-gated is held back; the OS identification names the real
// kernel in its text.
#include "platform/os.h"

namespace platform {

bool GetOsVersion(OsVersion& out) {
  out = OsVersion{2, 10, 0, 0};
  return true;
}

bool IsNtFamily() { return true; }

}  // namespace platform
