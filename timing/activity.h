// Activity marks: operations note that they passed a numbered point, so that status displays can
// tell what the service is doing. The shared activity map installs a marker; until one is
// installed, marking does nothing.
#pragma once
#include <cstdint>

inline constexpr std::uint32_t kActivityHostLookup = 1;    // a host name is being looked up
inline constexpr std::uint32_t kActivityHostFound = 2;     // the lookup gave an address
inline constexpr std::uint32_t kActivityNtpSend = 9;       // an NTP request is being sent
inline constexpr std::uint32_t kActivityNtpReceived = 10;  // the NTP receive returned (reply or failure)

using ActivityMarker = void (*)(std::uint32_t slot);

void SetActivityMarker(ActivityMarker marker);   // nullptr: marks do nothing again
void MarkActivity(std::uint32_t slot);           // hands slot to the installed marker, if any
