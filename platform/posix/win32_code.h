// The Win32 error code of an errno value, for the POSIX backend's LastError().
#pragma once
#include <cstdint>

namespace platform {

// The Win32 code for err (0 for 0); path_missing words ENOENT as "path not found" (3) rather than
// "file not found" (2). Codes without a closer match are 31 (ERROR_GEN_FAILURE).
std::uint32_t Win32CodeOfErrno(int err, bool path_missing = false);

}  // namespace platform
