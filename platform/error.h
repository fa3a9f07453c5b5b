// The thread's last-error values and the system's own error texts.
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

// Win32 error codes (the thread's last-error value and the registry calls' statuses).
inline constexpr std::uint32_t kErrorFileNotFound = 2;          // ERROR_FILE_NOT_FOUND
inline constexpr std::uint32_t kErrorPathNotFound = 3;          // ERROR_PATH_NOT_FOUND
inline constexpr std::uint32_t kErrorTooManyOpenFiles = 4;      // ERROR_TOO_MANY_OPEN_FILES
inline constexpr std::uint32_t kErrorAccessDenied = 5;          // ERROR_ACCESS_DENIED
inline constexpr std::uint32_t kErrorInvalidHandle = 6;         // ERROR_INVALID_HANDLE
inline constexpr std::uint32_t kErrorNotEnoughMemory = 8;       // ERROR_NOT_ENOUGH_MEMORY
inline constexpr std::uint32_t kErrorWriteProtect = 19;         // ERROR_WRITE_PROTECT
inline constexpr std::uint32_t kErrorWriteFault = 29;           // ERROR_WRITE_FAULT
inline constexpr std::uint32_t kErrorReadFault = 30;            // ERROR_READ_FAULT
inline constexpr std::uint32_t kErrorGenFailure = 31;           // ERROR_GEN_FAILURE
inline constexpr std::uint32_t kErrorSharingViolation = 32;     // ERROR_SHARING_VIOLATION
inline constexpr std::uint32_t kErrorLockViolation = 33;        // ERROR_LOCK_VIOLATION
inline constexpr std::uint32_t kErrorHandleEof = 38;            // ERROR_HANDLE_EOF
inline constexpr std::uint32_t kErrorNegativeSeek = 131;       // ERROR_NEGATIVE_SEEK
inline constexpr std::uint32_t kErrorBadNetPath = 53;           // ERROR_BAD_NETPATH: machine unreachable
inline constexpr std::uint32_t kErrorFileExists = 80;           // ERROR_FILE_EXISTS
inline constexpr std::uint32_t kErrorAlreadyExists = 183;       // ERROR_ALREADY_EXISTS
inline constexpr std::uint32_t kErrorInvalidParameter = 87;     // ERROR_INVALID_PARAMETER
inline constexpr std::uint32_t kErrorDiskFull = 112;            // ERROR_DISK_FULL
inline constexpr std::uint32_t kErrorPathTooLong = 206;         // ERROR_FILENAME_EXCED_RANGE
inline constexpr std::uint32_t kErrorNoData = 232;              // ERROR_NO_DATA
inline constexpr std::uint32_t kErrorMoreData = 234;            // ERROR_MORE_DATA
inline constexpr std::uint32_t kErrorNoMoreItems = 259;         // ERROR_NO_MORE_ITEMS
inline constexpr std::uint32_t kErrorRegistryCorrupt = 1015;    // ERROR_BADDB
inline constexpr std::uint32_t kErrorRegistryIoFailed = 1016;   // ERROR_REGISTRY_IO_FAILED
inline constexpr std::uint32_t kErrorKeyDeleted = 1018;         // ERROR_KEY_DELETED
inline constexpr std::uint32_t kErrorCancelled = 1223;          // ERROR_CANCELLED
inline constexpr std::uint32_t kErrorInvalidData = 13;          // ERROR_INVALID_DATA
inline constexpr std::uint32_t kErrorNotSupported = 50;         // ERROR_NOT_SUPPORTED
inline constexpr std::uint32_t kErrorInvalidServiceControl = 1052;  // ERROR_INVALID_SERVICE_CONTROL
inline constexpr std::uint32_t kErrorServiceTimeout = 1053;     // ERROR_SERVICE_REQUEST_TIMEOUT
inline constexpr std::uint32_t kErrorAlreadyRunning = 1056;     // ERROR_SERVICE_ALREADY_RUNNING
inline constexpr std::uint32_t kErrorServiceDisabled = 1058;    // ERROR_SERVICE_DISABLED
inline constexpr std::uint32_t kErrorNoSuchService = 1060;      // ERROR_SERVICE_DOES_NOT_EXIST
inline constexpr std::uint32_t kErrorCannotAcceptControl = 1061;  // ERROR_SERVICE_CANNOT_ACCEPT_CTRL
inline constexpr std::uint32_t kErrorNotActive = 1062;          // ERROR_SERVICE_NOT_ACTIVE
inline constexpr std::uint32_t kErrorNotStopped = 1237;         // ERROR_RETRY: a service did not stop within the wait
inline constexpr std::uint32_t kErrorUnsupported = 1633;        // ERROR_INSTALL_PLATFORM_UNSUPPORTED
inline constexpr std::uint32_t kErrorServerUnavailable = 1722;  // RPC_S_SERVER_UNAVAILABLE

// Winsock error codes (the thread's last socket error).
inline constexpr int kWsaEintr = 10004;
inline constexpr int kWsaEacces = 10013;
inline constexpr int kWsaEfault = 10014;
inline constexpr int kWsaEinval = 10022;
inline constexpr int kWsaEmfile = 10024;
inline constexpr int kWsaEwouldblock = 10035;
inline constexpr int kWsaEinprogress = 10036;
inline constexpr int kWsaEalready = 10037;
inline constexpr int kWsaEnotsock = 10038;
inline constexpr int kWsaEdestaddrreq = 10039;
inline constexpr int kWsaEmsgsize = 10040;
inline constexpr int kWsaEprototype = 10041;
inline constexpr int kWsaEnoprotoopt = 10042;
inline constexpr int kWsaEprotonosupport = 10043;
inline constexpr int kWsaEopnotsupp = 10045;
inline constexpr int kWsaEafnosupport = 10047;
inline constexpr int kWsaEaddrinuse = 10048;
inline constexpr int kWsaEaddrnotavail = 10049;
inline constexpr int kWsaEnetdown = 10050;
inline constexpr int kWsaEnetunreach = 10051;
inline constexpr int kWsaEnetreset = 10052;
inline constexpr int kWsaEconnaborted = 10053;
inline constexpr int kWsaEconnreset = 10054;        // also a refused datagram (ICMP port unreachable)
inline constexpr int kWsaEnobufs = 10055;
inline constexpr int kWsaEisconn = 10056;
inline constexpr int kWsaEnotconn = 10057;
inline constexpr int kWsaEshutdown = 10058;
inline constexpr int kWsaEtimedout = 10060;         // receive time-out
inline constexpr int kWsaEconnrefused = 10061;
inline constexpr int kWsaEhostdown = 10064;
inline constexpr int kWsaEhostunreach = 10065;
inline constexpr int kWsaHostNotFound = 11001;
inline constexpr int kWsaTryAgain = 11002;
inline constexpr int kWsaNoRecovery = 11003;
inline constexpr int kWsaNoData = 11004;

// The NTP client's own codes, in the same space as the Winsock codes.
inline constexpr std::int32_t kNtpErrorInvalidData = -1;    // the reply or request held invalid data
inline constexpr std::int32_t kNtpErrorProtocol = -2;       // the reply was not a correct protocol response
inline constexpr std::int32_t kNtpErrorClockNotSet = 1901;  // the server reports its own clock is not set

std::uint32_t LastError();               // the calling thread's last-error value (Win32 numbering)
void SetLastError(std::uint32_t code);   // sets the calling thread's last-error value
int LastSocketError();                   // the calling thread's last socket error (Winsock numbering: 10060 timed out, ...)
void SetLastSocketError(int code);       // sets the calling thread's last socket error

// The system's message text for a Win32 error code, as FormatMessageA gives it (each text ends in
// ".\r\n"), written terminated into buf (size bytes). Returns false, leaving buf empty, for an
// unknown code. Win32: FormatMessageA; POSIX: the project's table of standard Windows wordings.
bool SystemMessage(std::uint32_t code, char* buf, std::size_t size);

}  // namespace platform
