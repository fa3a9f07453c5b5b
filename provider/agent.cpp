// The agent thread's loop.
#include "provider/agent.h"

#include "provider/provider.h"

std::uint32_t AgentThreadMain() {
  while (platform::WaitForEvent(g_provider.shutdown_event, kAgentPollMs) == platform::kWaitTimeout) {
  }
  return 0;
}

void AgentThreadEntry(void*) { AgentThreadMain(); }
