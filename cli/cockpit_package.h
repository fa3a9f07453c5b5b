// The Cockpit page (cockpit/ and the applet's icons), built into the program: `chronwarden install`
// writes it into the web console's package folder of this machine, `chronwarden remove` takes it
// away again (platform::CockpitPackageDirectory; nothing when there is none).
#pragma once
#include <span>
#include <string>
#include <string_view>

struct EmbeddedFile {
  std::string_view name;    // path inside the package folder ("icons/app.ico")
  std::string_view bytes;
};

// The page's files, as the build found them.
std::span<const EmbeddedFile> CockpitPackageFiles();

// Writes every file into dir (made when missing), each replaced whole. False with a message in
// error when one could not be written.
bool WriteCockpitPackage(const std::string& dir, std::string& error);
// Deletes the page's files from dir, then its folders when they are left empty; files of others
// stay. False with a message in error when one could not be deleted.
bool DeleteCockpitPackage(const std::string& dir, std::string& error);
