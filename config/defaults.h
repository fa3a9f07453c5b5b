// The product's fixed settings and defaults, kept in one place.
#pragma once
#include <cstdint>

namespace defaults {

// Real-time brackets around time-critical measurements. Zero leaves the system alone; the brackets
// stay in place around the same call sites so that a build can turn them on.
inline constexpr std::uint32_t kTimerResolutionMs = 0;   // timeBeginPeriod value (ms)
inline constexpr std::uint64_t kAffinityMask = 0;        // processor mask for pinning

inline constexpr std::uint32_t kPreciseClockTickMs = 1;           // calibration timer period (ms)
inline constexpr std::uint32_t kPreciseClockSettleMs = 100;       // start waits this long for the timer to be armed (ms)

// Drift history file.
inline constexpr const char* kDriftFileName = "drift.kr";          // in the system directory
inline constexpr const char* kDriftPreviousSuffix = ".1";          // drift.kr.1: the history the last clear emptied
inline constexpr std::uint32_t kDriftLockWaitMs = 10'000;          // provider-side lock wait, in the process and between processes (ms)
inline constexpr std::uint32_t kDriftFileCapBytes = 327'680;       // append trims at this size (16,384 records)
inline constexpr std::uint32_t kDriftFileKeepBytes = 163'840;      // a trim keeps the newest 8,192 records
inline constexpr std::uint32_t kDriftRecordsPerScreen = 64;        // the graph's and the snapshot's page

// Synchronization summary report.
inline constexpr const char* kReportTempPrefix = "KRG";            // temporary report file names
inline constexpr const char* kNotepadTempKey = "\\NotepadTemp";    // registry list of temporary reports
inline constexpr std::uint32_t kNotepadTempPathSize = 4096;        // longest listed path read back (bytes, with the terminator)
// The product's key under the vendor key, also its time-provider name.
inline constexpr const char* kProductName = "Chronwarden";
// Room for a translated registry path (characters, with the terminator). A path that does not fit
// is refused (error 206), never cut down to another key.
inline constexpr std::uint32_t kRegPathSize = 512;
// A target machine's name is kept (and connected to) with at most this many characters.
inline constexpr std::uint32_t kRegTargetNameChars = 127;
// reg_set_string_fmt formats into this many characters; a longer result is cut.
inline constexpr std::uint32_t kRegFormatSize = 32767;
// NTP query client.
inline constexpr std::uint32_t kNtpTimeoutMs = 2000;       // receive time-out when a caller passes 0 (ms)
inline constexpr std::uint16_t kNtpPort = 123;             // used when the "ntp" service is unknown
inline constexpr std::uint16_t kNtpLocalPort = 0;          // local UDP port bound before sending (0: the system's choice)
inline constexpr bool kNtpMultiSample = false;             // false: one exchange per query; true: median of three
inline constexpr std::uint32_t kNtpMultiSampleCount = 3;   // exchanges per query in multi-sample mode
inline constexpr std::uint32_t kNtpMultiSamplePauseMs = 100;   // pause after each of them (ms)
// How long the exchange polls for the reply before it blocks in the receive (us): a reply that
// comes back this fast is taken without the wake-up delay of an idle processor between its arrival
// and T4. Slower replies cost this much processor time once per query.
inline constexpr std::uint32_t kNtpReceiveSpinUs = 200;

// Drift graph: the plot's size in pixels when the window is at 96 dpi with its 8-point dialog font
// (424 x 190 dialog units); the command line draws this size unless told otherwise.
inline constexpr int kGraphPlotWidth = 636;
inline constexpr int kGraphPlotHeight = 308;
// Values the agent keeps under the provider's key.
inline constexpr const char* kLastUsedTimeSourceValue = "Last Used Time Source";
inline constexpr const char* kPartnerValue = "Current Inbound Time Partner";
// KR2 client (chronwarden kr2 / monitor).
inline constexpr std::uint32_t kKr2TimeoutMs = 1000;       // reply wait of one request (ms)
inline constexpr std::uint32_t kKr2HistoryTries = 3;       // sends of one history request before "no reply"
// KR2 responder: who may change the machine, and how fast one source is answered.
inline constexpr const char* kProhibitedKr2Value = "Prohibited KR2 Commands";   // W32Time Parameters, binary: non-zero refuses
inline constexpr const char* kKr2ManagersValue = "KR2 Managers";       // provider key, text: addresses that may clear and resync
inline constexpr const char* kKr2ManagersDefault = "127.0.0.0/8";      // when the value is missing: this machine only
inline constexpr const char* kKr2RateLimitValue = "KR2 Rate Limit";    // provider key, DWORD: reply bytes a second per source, 0 off
inline constexpr const char* kKr2RateBurstValue = "KR2 Rate Burst";    // provider key, DWORD: reply bytes a source may have at once
inline constexpr std::uint32_t kKr2RateLimitBytes = 2048;   // reply bytes a second per source address (5 status replies)
inline constexpr std::uint32_t kKr2RateBurstBytes = 16384;  // bytes a quiet source may be sent at once (46 status replies)
inline constexpr std::uint32_t kKr2RateSources = 4096;      // sources the limiter remembers (a table of fixed size)
inline constexpr std::uint32_t kKr2RateStaleMs = 60'000;    // a regular unseen this long may give its place to a new source (ms)
inline constexpr std::uint32_t kKr2RateNewcomerMs = 5'000;  // a source seen once, unseen this long, may give it (ms)
// The work a request causes, charged beside its reply's bytes (bytes-equivalent): a history read
// goes through the drift file (at most 16 a second at the default rate), a clear writes the file and
// the registry, a resync makes the machine query its time sources.
inline constexpr std::uint32_t kKr2WorkHistoryBytes = 108;   // command 160 (128 in all with its 20-byte reply)
inline constexpr std::uint32_t kKr2WorkClearBytes = 4096;    // command 129
inline constexpr std::uint32_t kKr2WorkResyncBytes = 1024;   // commands 3 and 204
inline constexpr std::uint32_t kKr2NoticeIntervalS = 3600;  // one logged refusal per source in this time (s)
inline constexpr std::uint32_t kKr2NoticesPerInterval = 100;   // refusals logged in that time for all sources together
// The Prometheus exporter (chronwarden exporter). TCP 9909: the number of the KR2 UDP port it
// probes (Prometheus' allocated exporter range 9100-9999 is full), so one firewall rule names both.
inline constexpr std::uint16_t kExporterPort = 9909;
inline constexpr std::uint32_t kExporterTimeoutMs = 1000;   // the longest KR2 wait of one probe (ms)
inline constexpr std::uint32_t kExporterMaxProbes = 1000;   // probes in flight at once; more get 503
inline constexpr std::uint32_t kExporterScrapeMarginMs = 500;   // left of Prometheus' scrape time-out

}  // namespace defaults

// Windows Time settings and the provider's registration.
namespace defaults {
inline constexpr const char* kModuleFileName = "w32tmkr.cpl";        // the module in the system directory
inline constexpr const char* kProductVersion = "4.2.b.20081210R";    // "Current Version" of the provider key
inline constexpr const char* kProviderKey =                          // the provider's registration
    "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";
inline constexpr const char* kW32TimeServiceKey = "\\\\System\\CurrentControlSet\\Services\\W32Time";
inline constexpr const char* kW32TimeParametersKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters";
inline constexpr const char* kTimeProvidersKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders";
inline constexpr const char* kHostSystemdUnit = "chronwarden-host.service";   // the Linux time service's unit
inline constexpr const char* kHostInstalledMark = "Installed By";    // W32Time value: install made the host the service
inline constexpr const char* kHostInstalledBy = "chronwarden install";   // ... and its text
inline constexpr std::uint32_t kProviderOemId = 288;                 // "OEMID" of the provider key
inline constexpr const char* kCplCategoryValue = "%systemroot%\\system32\\w32tmkr.cpl";   // Control Panel category value name
inline constexpr std::uint32_t kCplCategory = 6;                     // its Control Panel category number
inline constexpr std::uint32_t kW32tServiceStart = 2;                // W32Time "Start" when missing (automatic)
inline constexpr std::uint32_t kCheckIntervalS = 1800;               // the agent's check interval when missing (s)
inline constexpr std::uint32_t kAlertThresholdS = 2;                 // the alert threshold when missing (s)
// The Kairon products that may manage the clock beside the time service.
inline constexpr const char* kKaironServerParamsKey = "\\\\Software\\Morvane\\Kairon Server\\Parameters";
inline constexpr const char* kKaironClientParamsKey = "\\\\Software\\Morvane\\Kairon Client\\Parameters";
inline constexpr const char* kKaironProtocolsKey = "\\\\Software\\Morvane\\Kairon Server\\Enabled Protocols";
inline constexpr std::uint32_t kKaironServerSettingsSize = 335;      // its binary "Server Settings" (bytes)
}  // namespace defaults

// The Control Panel applet and its installation.
namespace defaults {
inline constexpr const char* kAppletCaption = "Chronwarden";                  // message boxes and the sheet
inline constexpr const char* kDocumentationHost = "www.selvox.example";       // the documentation links
inline constexpr const char* kCopyright = "Copyright (C) 2008 Selvox, Inc. All rights reserved.";
inline constexpr const char* kPublicNtpServer1 = "pool.ntp.org";             // added to the server list by install
inline constexpr const char* kPublicNtpServer2 = "time.nist.gov";
inline constexpr const char* kUninstallKey = "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Chronwarden Control Panel Applet";
inline constexpr std::uint32_t kStatusThreadWaitMs = 10'000;                 // the launch waits this long for the status worker
inline constexpr std::uint32_t kStatusCheckPeriodMs = 8'000;                 // the status worker checks this often (ms)
inline constexpr std::uint32_t kStatusQueryTimeoutMs = 500;                  // each question of a status check, NTP or KR2 (ms)
inline constexpr std::uint32_t kStatusRowPauseMs = 150;                      // pause after each server row (ms)
inline constexpr std::uint32_t kServerTestPauseMs = 500;                     // Test Server: pause after an answer (ms)
inline constexpr std::uint32_t kPageRefreshMs = 2'000;                      // the Agent and Service pages refresh this often (ms)
}  // namespace defaults

// Service control of the time service.
namespace defaults {
inline constexpr const char* kTimeServiceName = "W32Time";      // the time service's name
inline constexpr std::uint32_t kStopFirstSleepMs = 250;           // pause after sending stop (ms)
inline constexpr std::uint32_t kStopPollMinMs = 100;              // stop polling: the wait hint clamped to this... (ms)
inline constexpr std::uint32_t kStopPollMaxMs = 500;              // ...and this (ms)
inline constexpr std::uint32_t kStopWaitMs = 30'000;              // give up on a stop after this long (ms)
inline constexpr std::uint32_t kRestartPolls = 100;               // restart: polls for stopped, then for running
inline constexpr std::uint32_t kRestartPollMs = 100;              // restart: pause between polls (ms)
inline constexpr std::uint32_t kServiceMessageStyle = 0x42030;    // OK, warning icon, task-modal, topmost
}  // namespace defaults

// The Linux time service's NTP client (chrony).
namespace defaults {
inline constexpr const char* kChronyParametersKey = "System\\CurrentControlSet\\Services\\W32Time\\Parameters";   // holds the two paths below when set
inline constexpr const char* kChronySocket = "/run/chrony/chronyd.sock";                  // "ChronyCommandSocket"
inline constexpr const char* kChronySourcesFile = "/etc/chrony/sources.d/chronwarden.sources";   // "ChronySourcesFile"
inline constexpr const char* kChronyConfigFile = "/etc/chrony/chrony.conf";                       // "ChronyConfigFile"
}  // namespace defaults
namespace defaults {
inline constexpr const char* kChronySourcesValue = "ChronySourcesFile";     // where the sources file goes
inline constexpr const char* kChronyConfigValue = "ChronyConfigFile";       // chrony's own configuration, read for its sources
inline constexpr const char* kChronySocketValue = "ChronyCommandSocket";    // chronyd's command socket
inline constexpr const char* kDefaultMachineRoot = "/var/lib/chronwarden";  // the system's own machine root (Linux)
}  // namespace defaults

// The product family's identity, as the shared status block, the status records and the
// registration show it.
namespace defaults {
inline constexpr std::uint32_t kVersionMajor = 4;
inline constexpr std::uint32_t kVersionMinor = 2;
inline constexpr std::uint32_t kBuildYear = 2008;
inline constexpr std::uint32_t kBuildMonthDay = 1210;
inline constexpr std::uint32_t kProductCode = 7;                   // this product among the family's
}  // namespace defaults
