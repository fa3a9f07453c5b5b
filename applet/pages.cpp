// The logic of each page of the sheet.
#include "applet/about_page.h"
#include "applet/agent_page.h"
#include "applet/applet.h"
#include "applet/client_page.h"
#include "applet/server_page.h"
#include "applet/service_page.h"
#include "resources/resources.h"

platform::DialogLogic& applet_page_logic(int template_id) {
  static ClientPage client;
  static ServerPage server;
  static AgentPage agent;
  static ServicePage service;
  static AboutPage about;
  switch (template_id) {
    case IDD_CLIENT:
    case IDD_CLIENT_W2K: return client;
    case IDD_SERVER: return server;
    case IDD_AGENT: return agent;
    case IDD_SERVICE: return service;
    default: return about;
  }
}
