// The backend end of the standard input and output functions (posix/stdio.cpp, win32/stdio.cpp).
// Only platform/ includes this header.
#pragma once
#include <cstddef>
#include <string_view>

namespace platform::sys {

// Up to size bytes of standard input as they come; 0 at its end (or a termination signal), -1 on
// a read error.
long ReadStandardInput(char* buf, std::size_t size);
// All of bytes to standard output; false when it is gone.
bool WriteStandardOutput(std::string_view bytes);

}  // namespace platform::sys
