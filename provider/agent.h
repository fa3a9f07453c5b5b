// The agent thread: the provider's one worker, started last by start-up and ended by the shutdown
// event. For now it waits on the shutdown event with a one-second time-out and returns when the
// event is set; the check cycle comes with the agent's own module.
#pragma once
#include <cstdint>

inline constexpr std::uint32_t kAgentPollMs = 1000;   // the agent wakes at least this often (ms)

std::uint32_t AgentThreadMain();   // returns 0 once the shutdown event is set
void AgentThreadEntry(void*);      // the thread function handed to the platform
