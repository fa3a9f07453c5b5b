#include "cli/cockpit_package.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool Failed(std::string& error, const fs::path& path, const std::error_code& ec) {
  error = path.string() + ": " + ec.message();
  return false;
}

}  // namespace

bool WriteCockpitPackage(const std::string& dir, std::string& error) {
  for (const EmbeddedFile& f : CockpitPackageFiles()) {
    const fs::path path = fs::path(dir) / f.name;
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    if (ec) return Failed(error, path.parent_path(), ec);
    // Written beside, then moved over: a page being served never shows half a file.
    const fs::path part = path.string() + ".part";
    {
      std::ofstream out(part, std::ios::binary | std::ios::trunc);
      if (!out) return Failed(error, part, std::error_code(errno, std::generic_category()));
      out.write(f.bytes.data(), std::streamsize(f.bytes.size()));
      if (!out.flush()) return Failed(error, part, std::make_error_code(std::errc::io_error));
    }
    fs::permissions(part, fs::perms(0644), ec);
    fs::rename(part, path, ec);
    if (ec) {
      fs::remove(part);
      return Failed(error, path, ec);
    }
  }
  return true;
}

bool DeleteCockpitPackage(const std::string& dir, std::string& error) {
  std::error_code ec;
  for (const EmbeddedFile& f : CockpitPackageFiles()) {
    const fs::path path = fs::path(dir) / f.name;
    if (!fs::remove(path, ec) && ec) return Failed(error, path, ec);
    // Its folders, from the innermost up to dir, while they are empty.
    for (fs::path folder = path.parent_path(); folder.string().size() >= dir.size(); folder = folder.parent_path()) {
      if (!fs::is_directory(folder, ec) || !fs::is_empty(folder, ec)) break;
      fs::remove(folder, ec);
      if (folder == fs::path(dir)) break;
    }
  }
  return true;
}
