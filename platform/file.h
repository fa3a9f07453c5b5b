// Files in Win32 terms: create/open with access and sharing modes, read, write, seek, size, flush,
// end of file, temporary names, the data-file access rules and opening a text file for the user.
// Paths are Windows paths; on POSIX every path goes through NativePath ("\\HOST\admin$\x" is
// <network root>/HOST/x). Failures return false / nullptr with the Win32 code in LastError().
//
// Sharing on POSIX: an open that shares nothing takes an exclusive advisory lock (flock), any other
// open a shared one, both without waiting; a conflict fails with 32 (ERROR_SHARING_VIOLATION).
// Not enforced on POSIX: the difference between read and write sharing, delete sharing, and
// processes that open the file without these functions (advisory locks bind only cooperating code).
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace platform {

struct FileObject;
using FileHandle = FileObject*;   // nullptr is the invalid handle

inline constexpr std::uint32_t kGenericRead = 0x80000000;    // GENERIC_READ
inline constexpr std::uint32_t kGenericWrite = 0x40000000;   // GENERIC_WRITE
inline constexpr std::uint32_t kShareRead = 0x1;             // FILE_SHARE_READ
inline constexpr std::uint32_t kShareWrite = 0x2;            // FILE_SHARE_WRITE
inline constexpr std::uint32_t kCreateAlways = 2;            // CREATE_ALWAYS: create or truncate
inline constexpr std::uint32_t kOpenExisting = 3;            // OPEN_EXISTING
inline constexpr std::uint32_t kOpenAlways = 4;              // OPEN_ALWAYS: open or create empty
inline constexpr std::uint32_t kAttrNotContentIndexed = 0x2000;      // FILE_ATTRIBUTE_NOT_CONTENT_INDEXED
inline constexpr std::uint32_t kFlagSequentialScan = 0x08000000;     // FILE_FLAG_SEQUENTIAL_SCAN
// POSIX: the file is one that another account may have planted a link at (a folder the host's
// group may write, opened by root): a symbolic link there is not followed, and the file opened must
// be a regular file with one link, owned by this process's user, by root or by the folder's group;
// anything else fails with 5 (access denied). Windows: ignored.
inline constexpr std::uint32_t kFlagNoLinks = 0x00000100;

enum class SeekFrom { Begin, Current, End };

// CreateFileA. access: kGenericRead | kGenericWrite; share: kShareRead | kShareWrite (0: none);
// disposition: kCreateAlways, kOpenExisting or kOpenAlways; flags: attributes and hints.
FileHandle FileCreate(std::string_view path, std::uint32_t access, std::uint32_t share, std::uint32_t disposition,
                      std::uint32_t flags);
void FileClose(FileHandle file);                       // nullptr is ignored
// Reads up to size bytes at the file pointer; done gets the count (0 at the end of the file).
bool FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done);
// Writes size bytes at the file pointer; done gets the count written.
bool FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done);
// Moves the file pointer by distance bytes from the origin; position (optional) gets the new offset.
bool FileSeek(FileHandle file, std::int64_t distance, SeekFrom from, std::uint64_t* position = nullptr);
bool FileSize(FileHandle file, std::uint64_t& size);   // size in bytes
bool FileFlush(FileHandle file);                       // FlushFileBuffers (POSIX: fsync): on disk when it returns
bool FileSetEnd(FileHandle file);                      // SetEndOfFile: cuts or extends the file at the file pointer
// The writers' lock of a file, between processes and between handles of one process: an exclusive
// lock on one byte far beyond any data (LockFileEx; POSIX: an open-file-description lock, fcntl
// F_OFD_SETLK), so reading and writing the data stay free for everyone. Waits at most wait_ms; false
// with 33 (ERROR_LOCK_VIOLATION) when another handle still holds it then. POSIX: the handle must be
// open for writing. FileUnlockWriters releases it (closing the handle does too).
bool FileLockWriters(FileHandle file, std::uint32_t wait_ms);
bool FileUnlockWriters(FileHandle file);
// Writes bytes to path whole, with the owner and access rules of the open file like: into
// "<path>.part" beside it, created afresh (never through a link, and at first for its owner alone),
// flushed to disk, given like's owner, group and mode (Windows: SecureDataFile's rules), then moved
// over path (a link there is replaced, never followed). A failure leaves path as it was and no
// ".part" behind, with its Win32 code in LastError().
bool FileWriteWholeLike(std::string_view path, std::string_view bytes, FileHandle like);
bool FileDelete(std::string_view path);                // DeleteFileA
bool FileExists(std::string_view path);                // FindFirstFileA finds it (a file or a folder)
bool CreateDirectoryPath(std::string_view path);       // SHCreateDirectoryExA: the folder and those above it; true when it is there
bool RemoveEmptyDirectory(std::string_view path);      // RemoveDirectoryA: false for a folder that is not empty

// GetTempPathA: the temporary folder with a trailing separator, "" on failure.
// POSIX: $TMPDIR, else /tmp, with a trailing "/".
std::string TempDirectory();
// GetTempFileNameA with unique number 0: creates a new empty file "<dir><prefix><hex>.tmp" with a name
// no file had, and returns its path in out.
bool TempFileName(std::string_view dir, std::string_view prefix, std::string& out);

// The access rules of a shared data file (the drift history): everybody may read, only the
// administrators and the service accounts may write. Windows: replaces the file's DACL (Everyone
// FILE_GENERIC_READ|FILE_EXECUTE; Administrators, Local System, Local Service, Network Service
// GENERIC_ALL; each as an inheritable and a plain ACE), owner and group left alone. POSIX: mode 0644
// (owner read-write, everyone else read-only; root writes anyway), owner left alone: the file is
// owned by the account that created it, the service's. The file must exist; on POSIX it is changed
// only as a file kFlagNoLinks accepts (a link is refused, never followed). Result of setting the
// rules, with the code that setting them left in LastError() (0 on success on POSIX).
bool SecureDataFile(std::string_view path);

// Opens a text file for the user to read. Windows: "notepad \"path\"" with CreateProcessA, at screen
// position (x, y) when origin is given. POSIX: xdg-open when a desktop session is present
// (DISPLAY or WAYLAND_DISPLAY), else $VISUAL, else $EDITOR, started detached. False when nothing started.
bool OpenTextFileForUser(std::string_view path, const int* origin_xy);
// Hands the text files to open to hook instead of a viewer (the sheet process sends them to its
// front end); its result is OpenTextFileForUser's. An empty hook gives the viewer back.
void SetTextViewerHook(std::function<bool(std::string_view path)> hook);
// The screen position of a window's top-left corner (Windows: GetWindowRect). False without a window
// system (POSIX) or for a null window.
bool WindowOrigin(void* window, int& x, int& y);

// Standard output takes bytes as they are (Windows: binary mode, so "\r\n" is not doubled). POSIX: nothing to do.
void SetStdoutBinary();

}  // namespace platform
