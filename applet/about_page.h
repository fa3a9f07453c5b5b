// The About page: product, version, the description and terms, the documentation link, and the
// sheet's title naming the machine being configured.
#pragma once
#include "platform/dialog.h"

// The about text (lines joined by "\r\n").
extern const char* const kAboutText;

struct AboutPage : platform::DialogLogic {
  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  std::intptr_t notify(platform::Dialog&, int) override { return 0; }
  platform::StaticColours static_colours(platform::Dialog& d, int id) override;
};
