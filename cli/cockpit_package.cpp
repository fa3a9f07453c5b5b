#include "cli/cockpit_package.h"

#include "platform/error.h"
#include "platform/file.h"
#include "platform/machine.h"

namespace {

// The folder of a path inside the package folder ("" for none).
std::string FolderOf(const std::string& path) {
  const auto slash = path.find_last_of("/\\");
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::uint32_t Failed(std::string& failed_path, const std::string& path, std::uint32_t error) {
  failed_path = path;
  return error;
}

}  // namespace

std::uint32_t WriteCockpitPackage(const std::string& dir, std::string& failed_path) {
  for (const EmbeddedFile& f : CockpitPackageFiles()) {
    const std::string path = dir + "/" + std::string(f.name);
    const std::string folder = FolderOf(path);
    if (!platform::CreateDirectoryPath(folder)) return Failed(failed_path, folder, platform::LastError());
    // Written beside, then moved over: a page being served never shows half a file.
    if (!platform::WriteFileWhole(path, f.bytes, true)) return Failed(failed_path, path, platform::LastError());
  }
  return 0;
}

std::uint32_t DeleteCockpitPackage(const std::string& dir, std::string& failed_path) {
  for (const EmbeddedFile& f : CockpitPackageFiles()) {
    const std::string path = dir + "/" + std::string(f.name);
    if (!platform::FileDelete(path)) {
      const std::uint32_t error = platform::LastError();
      if (error != platform::kErrorFileNotFound && error != platform::kErrorPathNotFound)
        return Failed(failed_path, path, error);
    }
    // Its folders, from the innermost up to dir, while they are empty (a folder that is not, or
    // is not there, ends the walk: nothing to report).
    for (std::string folder = FolderOf(path); folder.size() >= dir.size(); folder = FolderOf(folder))
      if (!platform::RemoveEmptyDirectory(folder) || folder.size() == dir.size()) break;
  }
  return 0;
}
