#include "platform/posix/win32_code.h"

#include <cerrno>

#include "platform/error.h"

namespace platform {

std::uint32_t Win32CodeOfErrno(int err, bool path_missing) {
  switch (err) {
    case 0: return 0;
    case ENOENT: return path_missing ? kErrorPathNotFound : kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES: case EPERM: case EISDIR: return kErrorAccessDenied;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EROFS: return kErrorWriteProtect;
    case EEXIST: return kErrorFileExists;
    case EINVAL: return kErrorInvalidParameter;
    case ENOSPC: case EDQUOT: return kErrorDiskFull;
    case EMFILE: case ENFILE: return kErrorTooManyOpenFiles;
    case ENAMETOOLONG: return kErrorPathTooLong;
    case EWOULDBLOCK: return kErrorSharingViolation;
    case EIO: return kErrorReadFault;
    case EFBIG: return kErrorDiskFull;
    default: return kErrorGenFailure;
  }
}

}  // namespace platform
