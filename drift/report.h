// The synchronization summary report ("Raw Data"): a loaded drift log as a plain-text file of
// statistics and one line per record; Notepad (or the desktop's viewer) to show it; the clean-up of
// temporary reports.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "drift/drift_log.h"
#include "drift/drift_ui.h"


// Everything one pass over the records gathers (milliseconds unless said otherwise). Sums are 64-bit
// so that no number of records can overflow them.
struct DriftReportStats {
  std::uint32_t total = 0;
  std::array<std::uint32_t, 13> reasons{};   // codes 1, 2, 3, 4, 5, 8, 9, 255, 253, 254, 7, 6, then other
  std::uint32_t startup_count = 0;           // reasons 255 and 254
  std::int64_t startup_sum = 0;
  std::int32_t startup_min = 0, startup_max = 0;   // both start from 0
  std::uint32_t non_startup_count = 0;
  std::array<std::uint32_t, 6> buckets{};    // |variance| below 100, 250, 500, 1000, 5000, 4294967295
  std::int64_t sum = 0;
  std::int32_t min = 0, max = 0;             // both start from 0
  std::uint32_t negative = 0, positive = 0;
  std::uint32_t set = 0, not_set = 0;
  std::uint32_t earliest = 0, latest = 0;    // seconds since 1970; 0: none yet

  std::int64_t LargestAbs() const;           // max(-min, max)
  std::int32_t WorstStartup() const;         // startup min when |min| > max, else startup max
  std::uint32_t SpanSeconds() const;         // latest - earliest, or 1
  std::int32_t AverageStartup() const;       // startup_sum / startup_count, saturated; 0 without any
  std::int32_t AverageAll() const;           // sum / total, saturated; 0 without records
  std::uint32_t Zero() const { return total - negative - positive; }
};

DriftReportStats ComputeDriftReportStats(const DriftRecord* records, std::uint32_t count);

// The report's time zone text: "Universal Coordinated Time (GMT+0)" for UTC; for local time the
// zone's current name and " (GMT-0500)" style offset ("-" when the zone lies west of Greenwich).
void ReportTimeZoneText(bool local, char* out, std::size_t size);

// Writes the report text through sink, one call per section and per record line. now: seconds
// since 1970 for "Report date"; time_zone_text: as ReportTimeZoneText gives it.
using ReportSink = void (*)(void* context, const char* text, std::size_t length);
void RenderDriftReport(const DriftLog& log, const char* time_zone_text, std::uint32_t now, ReportSink sink,
                       void* context);

// Where a report written without an owner window goes: the log's path (at most 251 characters)
// with its extension replaced by ".txt", or ".txt" appended when its file name has no ".".
std::string DriftReportPathFor(const char* log_path);

// Writes the report to path (created anew, not shared). 0, or the Win32 code of the failure (a
// file that could not be written whole, on a full disk say, is deleted again).
std::uint32_t WriteDriftReportFile(const DriftLog& log, const char* path, const char* time_zone_text);

// The report of a loaded log. With an owner: into a new temporary file ("KRG" prefix) that is then
// opened for the user and remembered for deletion; no records: a notice and 232. Without an owner:
// next to the log (DriftReportPathFor). 0 on success, else the code of the failed file creation
// or write.
// time_zone_text: the graph window's text; null computes it now.
std::uint32_t WriteDriftReport(const DriftUi* owner, DriftLog& log, const char* time_zone_text = nullptr);

// Opens a text file for the user (Notepad, 30 pixels inside the owner's top-left corner). With
// delete_later, the path is remembered as a string value of the registry key "\NotepadTemp", named
// with the largest number among its value names plus 1 ("1" for the first). True when a viewer started.
bool OpenInNotepad(const DriftUi* owner, const char* path, bool delete_later);
// Deletes the file of every "\NotepadTemp" value up to the first one that cannot be read (failures
// ignored), then the key itself.
void DeleteNotepadTemps();

// The name of a time protocol code ("NTP/SNTP (RFC 1769)", ...; 254 "N/A"; unknown "specified protocol").
const char* ProtocolName(std::uint8_t code);

// The description of record index (0-based) for the graph: "Check #n: <date>, <reason>. Variance
// was ...". False (out untouched) unless 0 <= index < the end of the shown range.
bool DriftPointText(const DriftLog& log, std::int32_t index, char* out, std::size_t size);
