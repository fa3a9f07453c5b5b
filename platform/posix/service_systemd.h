// The systemd backend of platform/service.h: org.freedesktop.systemd1 over sd-bus. Each call
// returns true, or false with the Win32 code in the last-error value.
#pragma once
#include <string>
#include "platform/service.h"

namespace platform::systemd_backend {

bool Connect(const std::string& host, void*& bus);   // the system bus; another machine's over ssh
void Disconnect(void* bus);
bool OpenUnit(void* bus, const std::string& unit, void*& unit_handle);   // 1060 when systemd has no such unit
void CloseUnit(void* unit_handle);
bool Status(void* bus, void* unit, ServiceStatus& status);
bool Control(void* bus, void* unit, std::uint32_t control, ServiceStatus& status);
bool Config(void* bus, void* unit, ServiceConfig& config);
bool SetStartType(void* bus, void* unit, std::uint32_t start_type);   // enable / disable / mask
bool Start(void* bus, void* unit);

}  // namespace platform::systemd_backend
