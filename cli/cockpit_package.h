// The Cockpit page (cockpit/ and the applet's icons), built into the program: `chronwarden install`
// writes it into the web console's package folder of this machine, `chronwarden remove` takes it
// away again (platform::CockpitPackageDirectory; nothing when there is none).
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

struct EmbeddedFile {
  std::string_view name;    // path inside the package folder ("icons/app.ico")
  std::string_view bytes;
};

// The page's files, as the build found them.
std::span<const EmbeddedFile> CockpitPackageFiles();

// Writes every file into dir (made when missing), each replaced whole. 0, or the Win32 code with
// the file or folder that could not be written in failed_path.
std::uint32_t WriteCockpitPackage(const std::string& dir, std::string& failed_path);
// Deletes the page's files from dir, then its folders when they are left empty; files of others
// stay. 0, or the Win32 code with the file that could not be deleted in failed_path.
std::uint32_t DeleteCockpitPackage(const std::string& dir, std::string& failed_path);
