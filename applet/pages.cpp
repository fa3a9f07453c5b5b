// The logic of each page of the sheet. The Client, Server, Agent and Service pages are not written
// yet: until they are, each shows its template with the documentation link and applies through
// the shared apply step.
#include "applet/about_page.h"
#include "applet/agent_page.h"
#include "applet/applet.h"
#include "applet/service_page.h"
#include "resources/resources.h"

namespace {

struct PlainPage : platform::DialogLogic {
  const char* subject;
  explicit PlainPage(const char* s) : subject(s) {}
  bool init(platform::Dialog& d) override {
    applet_setup_link(d);
    return true;
  }
  bool command(platform::Dialog&, int id, int) override {
    if (id == IDC_LINK) applet_open_help(subject);
    return true;
  }
  std::intptr_t notify(platform::Dialog& d, int code) override {
    if (code == platform::kPsnApply) applet_apply(d);
    return 0;
  }
  platform::StaticColours static_colours(platform::Dialog&, int id) override {
    return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
  }
};

}  // namespace

platform::DialogLogic& applet_page_logic(int template_id) {
  static PlainPage client("clienttab"), server("servertab"), agent("agenttab"), service("servicetab");
  static AboutPage about;
  static AgentPage agent_page;
  static ServicePage service_page;
  switch (template_id) {
    case IDD_CLIENT:
    case IDD_CLIENT_W2K: return client;
    case IDD_SERVER: return server;
    case IDD_AGENT: return agent_page;
    case IDD_SERVICE: return service_page;
    default: return about;
  }
}
