// Services through systemd's manager object (org.freedesktop.systemd1) over sd-bus.
//
// States: ActiveState "active"/"reloading" is running, "activating" start pending, "deactivating"
// stop pending, anything else stopped. Start types: an "enabled" unit file is automatic, "masked"
// disabled, anything else manual; setting them enables, disables or masks the unit file (unmasking
// first) and reloads the manager. "Parameters changed" reloads the unit, or sends its main process
// SIGHUP when the unit cannot reload.
#include "platform/posix/service_systemd.h"

#include <signal.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <string>

#include "platform/error.h"

namespace platform::systemd_backend {

namespace {

constexpr const char* kDest = "org.freedesktop.systemd1";
constexpr const char* kPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";

struct Unit {
  std::string name, path;
};

sd_bus* B(void* bus) { return static_cast<sd_bus*>(bus); }
Unit* U(void* unit) { return static_cast<Unit*>(unit); }

// The Win32 code for a failed call.
bool Fail(const sd_bus_error& e, int r) {
  std::uint32_t code = 31;   // a device attached to the system is not functioning
  const char* n = e.name ? e.name : "";
  if (!std::strcmp(n, "org.freedesktop.systemd1.NoSuchUnit") || !std::strcmp(n, "org.freedesktop.DBus.Error.UnknownObject"))
    code = 1060;
  else if (!std::strcmp(n, "org.freedesktop.systemd1.UnitMasked")) code = 1058;
  else if (!std::strcmp(n, "org.freedesktop.DBus.Error.AccessDenied") ||
           !std::strcmp(n, "org.freedesktop.systemd1.InteractiveAuthorizationRequired"))
    code = 5;
  else if (!std::strcmp(n, "org.freedesktop.DBus.Error.NoReply") || !std::strcmp(n, "org.freedesktop.DBus.Error.ServiceUnknown") ||
           r == -ECONNRESET || r == -ENOTCONN)
    code = 1722;
  SetLastError(code);
  return false;
}

bool Ok() {
  SetLastError(0);
  return true;
}

// Calls a manager method whose arguments are (unit, mode); the job path is not waited for.
bool UnitJob(void* bus, const char* method, const Unit* u, const char* mode = "replace") {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const int r = sd_bus_call_method(B(bus), kDest, kPath, kManager, method, &e, &reply, "ss", u->name.c_str(), mode);
  sd_bus_message_unref(reply);
  const bool ok = r >= 0 || Fail(e, r);
  sd_bus_error_free(&e);
  return ok && Ok();
}

bool Property(void* bus, const Unit* u, const char* iface, const char* name, std::string& value) {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  char* text = nullptr;
  const int r = sd_bus_get_property_string(B(bus), kDest, u->path.c_str(), iface, name, &e, &text);
  if (r < 0) {
    Fail(e, r);
    sd_bus_error_free(&e);
    return false;
  }
  value = text;
  std::free(text);
  return true;
}

// A unit-file method of the manager with (array of unit files, runtime[, force]).
bool UnitFiles(void* bus, const char* method, const Unit* u, bool with_force) {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  sd_bus_message* m = nullptr;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_call(B(bus), &m, kDest, kPath, kManager, method);
  std::string name = u->name;
  char* files[] = {name.data(), nullptr};
  if (r >= 0) r = sd_bus_message_append_strv(m, files);
  if (r >= 0) r = with_force ? sd_bus_message_append(m, "bb", 0, 1) : sd_bus_message_append(m, "b", 0);
  if (r >= 0) r = sd_bus_call(B(bus), m, 0, &e, &reply);
  sd_bus_message_unref(m);
  sd_bus_message_unref(reply);
  const bool ok = r >= 0 || Fail(e, r);
  sd_bus_error_free(&e);
  return ok;
}

}  // namespace

bool Connect(const std::string& host, void*& bus) {
  sd_bus* b = nullptr;
  const int r = host.empty() ? sd_bus_open_system(&b) : sd_bus_open_system_remote(&b, host.c_str());
  if (r < 0) {
    SetLastError(kErrorServerUnavailable);
    return false;
  }
  bus = b;
  return Ok();
}

void Disconnect(void* bus) { sd_bus_flush_close_unref(B(bus)); }

bool OpenUnit(void* bus, const std::string& unit, void*& unit_handle) {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const char* path = nullptr;
  int r = sd_bus_call_method(B(bus), kDest, kPath, kManager, "LoadUnit", &e, &reply, "s", unit.c_str());
  if (r >= 0) r = sd_bus_message_read(reply, "o", &path);
  if (r < 0) {
    Fail(e, r);
    sd_bus_error_free(&e);
    sd_bus_message_unref(reply);
    return false;
  }
  auto* u = new Unit{unit, path};
  sd_bus_message_unref(reply);
  std::string load;
  if (!Property(bus, u, kUnit, "LoadState", load) || load == "not-found") {
    delete u;
    SetLastError(kErrorNoSuchService);
    return false;
  }
  unit_handle = u;
  return Ok();
}

void CloseUnit(void* unit_handle) { delete U(unit_handle); }

bool Status(void* bus, void* unit, ServiceStatus& status) {
  std::string active;
  if (!Property(bus, U(unit), kUnit, "ActiveState", active)) return false;
  status = ServiceStatus{};
  status.current_state = active == "active" || active == "reloading" ? kServiceRunning
                         : active == "activating"                   ? kServiceStartPending
                         : active == "deactivating"                 ? kServiceStopPending
                                                                    : kServiceStopped;
  return Ok();
}

bool Control(void* bus, void* unit, std::uint32_t control, ServiceStatus& status) {
  if (!Status(bus, unit, status)) return false;
  switch (control) {
    case kServiceControlInterrogate:
      return Ok();
    case kServiceControlStop:
      if (status.current_state == kServiceStopped) return SetLastError(kErrorNotActive), false;
      if (!UnitJob(bus, "StopUnit", U(unit))) return false;
      return Status(bus, unit, status);
    case kServiceControlParamChange: {
      if (status.current_state != kServiceRunning) return SetLastError(kErrorNotActive), false;
      sd_bus_error e = SD_BUS_ERROR_NULL;
      int can_reload = 0;
      sd_bus_get_property_trivial(B(bus), kDest, U(unit)->path.c_str(), kUnit, "CanReload", &e, 'b', &can_reload);
      sd_bus_error_free(&e);
      if (can_reload) return UnitJob(bus, "ReloadUnit", U(unit));
      sd_bus_message* reply = nullptr;
      const int r = sd_bus_call_method(B(bus), kDest, kPath, kManager, "KillUnit", &e, &reply, "ssi",
                                       U(unit)->name.c_str(), "main", SIGHUP);
      sd_bus_message_unref(reply);
      const bool ok = r >= 0 || Fail(e, r);
      sd_bus_error_free(&e);
      return ok && Ok();
    }
    default:
      SetLastError(kErrorInvalidServiceControl);
      return false;
  }
}

bool Config(void* bus, void* unit, ServiceConfig& config) {
  std::string state, path, description;
  if (!Property(bus, U(unit), kUnit, "UnitFileState", state)) return false;
  Property(bus, U(unit), kUnit, "FragmentPath", path);
  Property(bus, U(unit), kUnit, "Description", description);
  config = ServiceConfig{};
  config.start_type = state == "enabled" || state == "enabled-runtime" ? kServiceAutoStart
                      : state.rfind("masked", 0) == 0                  ? kServiceDisabledStart
                                                                       : kServiceDemandStart;
  config.binary_path = path;
  config.display_name = description;
  return Ok();
}

bool SetStartType(void* bus, void* unit, std::uint32_t start_type) {
  const Unit* u = U(unit);
  bool ok;
  if (start_type == kServiceDisabledStart) ok = UnitFiles(bus, "MaskUnitFiles", u, true);
  else {
    ok = UnitFiles(bus, "UnmaskUnitFiles", u, false) &&
         (start_type == kServiceAutoStart ? UnitFiles(bus, "EnableUnitFiles", u, true)
                                          : UnitFiles(bus, "DisableUnitFiles", u, false));
  }
  if (!ok) return false;
  sd_bus_error e = SD_BUS_ERROR_NULL;
  const int r = sd_bus_call_method(B(bus), kDest, kPath, kManager, "Reload", &e, nullptr, "");
  const bool reloaded = r >= 0 || Fail(e, r);
  sd_bus_error_free(&e);
  return reloaded && Ok();
}

bool Start(void* bus, void* unit) { return UnitJob(bus, "StartUnit", U(unit)); }

}  // namespace platform::systemd_backend
