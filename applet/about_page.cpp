// The About page.
#include "applet/about_page.h"


#include "applet/applet.h"
#include "resources/resources.h"

const char* const kAboutText =
    "Chronwarden 4.2.b.20081210R\r\n"
    "Selvox, Inc.\r\n"
    "1180 Meridian Parkway, Suite 400, Halden, OR 97321, USA\r\n"
    "support@selvox.example\r\n"
    "Telephone: +1 555 0142 7700\r\n"
    "Fax: +1 555 0142 7701\r\n"
    "\r\n"
    "PRODUCT DESCRIPTION\r\n"
    "1.\tChronwarden configures the Windows Time service of this machine or of\r\n"
    "    another machine on the network: its time sources, synchronization mode,\r\n"
    "    server role and debug log.\r\n"
    "2.\tIt records how far the clock drifts from a reference time server and\r\n"
    "    shows that history as drift graphs and synchronization statistics.\r\n"
    "3.\tOn Windows XP and above it also acts as a monitor: it checks the clock\r\n"
    "    at regular intervals and writes alerts to the event log when the time\r\n"
    "    cannot be verified or is off by more than a threshold.\r\n"
    "4.\tChronwarden does not itself make the Windows Time service more accurate\r\n"
    "    and never takes over the system clock; Windows Time keeps setting it.\r\n"
    "5.\tUnless the agent is disabled, the maker's other time products may ask\r\n"
    "    this machine over the network for:\r\n"
    "\ta) its synchronization status,\r\n"
    "\tb) its identity and time zone settings,\r\n"
    "\tc) its recorded drift history,\r\n"
    "\td) the time sources it used recently.\r\n"
    "\r\n"
    "TERMS OF USE\r\n"
    "1.\tYou may use and copy this software free of charge on any number of\r\n"
    "    machines, and give it to others unchanged.\r\n"
    "2.\tYou may not sell it, nor remove or alter these terms or its notices.\r\n"
    "3.\tThe software is provided as is, without warranty of any kind; the\r\n"
    "    maker is not liable for any damage arising from its use.\r\n"
    "4.\tThese terms are governed by the laws of the State of Oregon.\r\n"
    "\r\n"
    "Copyright (C) 2008 Selvox, Inc. All rights reserved.\r\n";

bool AboutPage::init(platform::Dialog& d) {
  g_applet.sheet_page = &d;
  applet_setup_link(d);
  applet_set_sheet_title(d);
  d.SetText(IDC_TITLE, applet_version_line());
  d.SetFont(IDC_ABOUT_TEXT, platform::kFontFixed);
  d.SetTabStops(IDC_ABOUT_TEXT, {12, 24});
  d.SetText(IDC_ABOUT_TEXT, kAboutText);
  return true;
}

bool AboutPage::command(platform::Dialog&, int id, int) {
  if (id == IDC_LINK) applet_open_help("abouttab");
  return true;
}

platform::StaticColours AboutPage::static_colours(platform::Dialog&, int id) {
  return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
}
