// Last-error values and the Win32 message table on POSIX.
#include "platform/error.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/sys.h"

namespace platform {
namespace {

thread_local std::uint32_t t_last_error = 0;
thread_local int t_last_socket_error = 0;

struct Message {
  std::uint32_t code;
  std::string_view text;
};

// The standard Windows (en-US) wording of the Win32 error codes this system can meet, each ending
// as FormatMessageA's texts do. Sorted by code.
constexpr Message kMessages[] = {
    {0, "The operation completed successfully.\r\n"},
    {1, "Incorrect function.\r\n"},
    {2, "The system cannot find the file specified.\r\n"},
    {3, "The system cannot find the path specified.\r\n"},
    {4, "The system cannot open the file.\r\n"},
    {5, "Access is denied.\r\n"},
    {6, "The handle is invalid.\r\n"},
    {8, "Not enough memory resources are available to process this command.\r\n"},
    {13, "The data is invalid.\r\n"},
    {14, "Not enough memory resources are available to complete this operation.\r\n"},
    {15, "The system cannot find the drive specified.\r\n"},
    {19, "The media is write protected.\r\n"},
    {21, "The device is not ready.\r\n"},
    {23, "Data error (cyclic redundancy check).\r\n"},
    {24, "The program issued a command but the command length is incorrect.\r\n"},
    {25, "The drive cannot locate a specific area or track on the disk.\r\n"},
    {29, "The system cannot write to the specified device.\r\n"},
    {30, "The system cannot read from the specified device.\r\n"},
    {31, "A device attached to the system is not functioning.\r\n"},
    {32, "The process cannot access the file because it is being used by another process.\r\n"},
    {33, "The process cannot access the file because another process has locked a portion of the file.\r\n"},
    {38, "Reached the end of the file.\r\n"},
    {39, "The disk is full.\r\n"},
    {50, "The request is not supported.\r\n"},
    {51, "Windows cannot find the network path. Verify that the network path is correct and the destination computer is not busy or turned off. If Windows still cannot find the network path, contact your network administrator.\r\n"},
    {53, "The network path was not found.\r\n"},
    {54, "The network is busy.\r\n"},
    {58, "The specified server cannot perform the requested operation.\r\n"},
    {59, "An unexpected network error occurred.\r\n"},
    {64, "The specified network name is no longer available.\r\n"},
    {65, "Network access is denied.\r\n"},
    {67, "The network name cannot be found.\r\n"},
    {80, "The file exists.\r\n"},
    {82, "The directory or file cannot be created.\r\n"},
    {87, "The parameter is incorrect.\r\n"},
    {110, "The system cannot open the device or file specified.\r\n"},
    {111, "The file name is too long.\r\n"},
    {112, "There is not enough space on the disk.\r\n"},
    {120, "This function is not supported on this system.\r\n"},
    {122, "The data area passed to a system call is too small.\r\n"},
    {123, "The filename, directory name, or volume label syntax is incorrect.\r\n"},
    {126, "The specified module could not be found.\r\n"},
    {127, "The specified procedure could not be found.\r\n"},
    {131, "An attempt was made to move the file pointer before the beginning of the file.\r\n"},
    {145, "The directory is not empty.\r\n"},
    {161, "The specified path is invalid.\r\n"},
    {170, "The requested resource is in use.\r\n"},
    {183, "Cannot create a file when that file already exists.\r\n"},
    {193, "%1 is not a valid Win32 application.\r\n"},
    {203, "The system could not find the environment option that was entered.\r\n"},
    {206, "The filename or extension is too long.\r\n"},
    {232, "The pipe is being closed.\r\n"},
    {234, "More data is available.\r\n"},
    {259, "No more data is available.\r\n"},
    {267, "The directory name is invalid.\r\n"},
    {288, "Attempt to release mutex not owned by caller.\r\n"},
    {998, "Invalid access to memory location.\r\n"},
    {1003, "Cannot complete this function.\r\n"},
    {1009, "The configuration registry database is corrupt.\r\n"},
    {1010, "The configuration registry key is invalid.\r\n"},
    {1011, "The configuration registry key could not be opened.\r\n"},
    {1012, "The configuration registry key could not be read.\r\n"},
    {1013, "The configuration registry key could not be written.\r\n"},
    {1015, "The registry is corrupted. The structure of one of the files containing registry data is corrupted, or the system's memory image of the file is corrupted, or the file could not be recovered because the alternate copy or log was absent or corrupted.\r\n"},
    {1016, "An I/O operation initiated by the registry failed unrecoverably. The registry could not read in, or write out, or flush, one of the files that contain the system's image of the registry.\r\n"},
    {1018, "Illegal operation attempted on a registry key that has been marked for deletion.\r\n"},
    {1051, "A stop control has been sent to a service that other running services are dependent on.\r\n"},
    {1052, "The requested control is not valid for this service.\r\n"},
    {1053, "The service did not respond to the start or control request in a timely fashion.\r\n"},
    {1054, "A thread could not be created for the service.\r\n"},
    {1055, "The service database is locked.\r\n"},
    {1056, "An instance of the service is already running.\r\n"},
    {1057, "The account name is invalid or does not exist, or the password is invalid for the account name specified.\r\n"},
    {1058, "The service cannot be started, either because it is disabled or because it has no enabled devices associated with it.\r\n"},
    {1059, "Circular service dependency was specified.\r\n"},
    {1060, "The specified service does not exist as an installed service.\r\n"},
    {1061, "The service cannot accept control messages at this time.\r\n"},
    {1062, "The service has not been started.\r\n"},
    {1063, "The service process could not connect to the service controller.\r\n"},
    {1064, "An exception occurred in the service when handling the control request.\r\n"},
    {1066, "The service has returned a service-specific error code.\r\n"},
    {1068, "The dependency service or group failed to start.\r\n"},
    {1069, "The service did not start due to a logon failure.\r\n"},
    {1070, "After starting, the service hung in a start-pending state.\r\n"},
    {1072, "The specified service has been marked for deletion.\r\n"},
    {1073, "The specified service already exists.\r\n"},
    {1115, "A system shutdown is in progress.\r\n"},
    {1168, "Element not found.\r\n"},
    {1203, "The network path was either typed incorrectly, does not exist, or the network provider is not currently available. Please try retyping the path or contact your network administrator.\r\n"},
    {1210, "The format of the specified computer name is invalid.\r\n"},
    {1222, "The network is not present or not started.\r\n"},
    {1223, "The operation was canceled by the user.\r\n"},
    {1231, "The network location cannot be reached. For information about network troubleshooting, see Windows Help.\r\n"},
    {1232, "The network location cannot be reached. For information about network troubleshooting, see Windows Help.\r\n"},
    {1237, "The operation could not be completed. A retry should be performed.\r\n"},
    {1244, "The operation being requested was not performed because the user has not been authenticated.\r\n"},
    {1314, "A required privilege is not held by the client.\r\n"},
    {1326, "The user name or password is incorrect.\r\n"},
    {1332, "No mapping between account names and security IDs was done.\r\n"},
    {1336, "The access control list (ACL) structure is invalid.\r\n"},
    {1338, "The security descriptor structure is invalid.\r\n"},
    {1460, "This operation returned because the timeout period expired.\r\n"},
    {1603, "Fatal error during installation.\r\n"},
    {1618, "Another installation is already in progress. Complete that installation before proceeding with this install.\r\n"},
    {1633, "This installation package is not supported by this processor type. Contact your product vendor.\r\n"},
    {1722, "The RPC server is unavailable.\r\n"},
    {1723, "The RPC server is too busy to complete this operation.\r\n"},
    {1726, "The remote procedure call failed.\r\n"},
    {1753, "There are no more endpoints available from the endpoint mapper.\r\n"},
    {1784, "The supplied user buffer is not valid for the requested operation.\r\n"},
};

}  // namespace

std::uint32_t LastError() { return t_last_error; }
void SetLastError(std::uint32_t code) { t_last_error = code; }
int LastSocketError() { return t_last_socket_error; }
void SetLastSocketError(int code) { t_last_socket_error = code; }

bool sys::SystemMessage(std::uint32_t code, char* buf, std::size_t size) {
  if (!buf || size == 0) return false;
  std::memset(buf, 0, size);
  auto it = std::lower_bound(std::begin(kMessages), std::end(kMessages), code,
                             [](const Message& m, std::uint32_t c) { return m.code < c; });
  if (it == std::end(kMessages) || it->code != code) return false;
  std::memcpy(buf, it->text.data(), std::min(it->text.size(), size - 1));
  return true;
}

}  // namespace platform
