// Test helper: a namespace of the test's own for the named shared objects, and their removal.
#pragma once
#include <random>
#include <string>

#include "platform/paths.h"
#include "platform/shared.h"
#include "provider/sync_status.h"

// Sets $CHRONWARDEN_SHM_NAMESPACE to "cwtest<random number>." (POSIX names only; Windows tests run in a Wine
// prefix of their own) and removes the family's objects before and after.
class SharedObjectNamespace {
 public:
  SharedObjectNamespace() {
    const std::string ns = "cwtest" + std::to_string(std::random_device{}()) + ".";
    platform::SetEnvironmentValue("CHRONWARDEN_SHM_NAMESPACE", ns.c_str());
    RemoveAll();
  }
  ~SharedObjectNamespace() {
    RemoveAll();
    platform::SetEnvironmentValue("CHRONWARDEN_SHM_NAMESPACE", nullptr);
  }
  static void RemoveAll() {
    for (const char* name : {kSyncStatusName, kSyncStatusEventName, kActivityMapName}) {
      platform::DeleteNamedObject(name);
      platform::DeleteNamedObject((std::string(kGlobalPrefix) + name).c_str());
    }
  }
};
