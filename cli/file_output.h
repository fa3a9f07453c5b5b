// Files the command line writes for others to read (the Cockpit page, metrics for the textfile
// collector): each written whole, so that a reader never sees half of one.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

// Writes bytes into "<path>.part" beside path, then renames it over path; readable_by_all gives
// the file the data files' access rules first (platform::SecureDataFile: everybody reads).
// Returns 0 or the Win32 code of the step that failed; a failure leaves no ".part" behind.
std::uint32_t WriteFileWhole(const std::string& path, std::string_view bytes, bool readable_by_all);
