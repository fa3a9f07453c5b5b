// The drift history file on the provider side: one process-wide handle on "drift.kr" in the
// system directory, every operation under one process-local lock (waits at most 10,000 ms).
// None of these reports an error text: success or failure only.
//
// Beyond the plain format, the provider keeps the file whole across crashes: every append is
// flushed to disk before it returns, and a torn tail (a size that is not a multiple of 20, left by
// a crash in the middle of a write) is cut back to the last whole record when the file is opened
// and before an append, so that one crash never makes the whole history unreadable.
//
// Several processes may write one file (the provider, `chronwarden history append`): every change
// (the cut of a torn tail, a trim, an append, a clear) is made under the file's writers' lock
// between processes too (platform::FileLockWriters, waiting at most as long), so none writes over
// another's records. Readers take no lock between processes and hold up no writer.
//
// Questions for the first record after a time (the KR2 responder's history command) are answered
// from an index of the file kept in memory and brought up to date with one read of the file per
// question (what was appended since, or the whole file when it was cut back), so that a full
// history answers as fast as an empty one, whoever changed the file.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "drift/drift_record.h"

// The file's Windows path: "<system directory>\drift.kr" for the local machine (empty name), else
// "\\machine\admin$\system32\drift.kr" (leading backslashes of the name are ignored).
std::string DriftFilePath(std::string_view machine);

// Opens (creating when needed, with its access rules) the file of a machine, empty for the local
// one. True when a valid handle is held afterwards; while one is held, a second open changes nothing.
bool DriftFileOpen(std::string_view machine = {});
// Opens the file at a Windows path: DriftFileOpen with the path already built.
bool DriftFileOpenPath(std::string_view path);
void DriftFileClose();        // closes the handle and retires the lock
// Empties the file, keeping its records as the previous generation "<path>.1" beside it (replacing
// the one an earlier clear kept; written whole, with the file's owner and access rules, never
// through a link: platform::FileWriteWholeLike). An empty file keeps the previous generation there
// is. True when emptied; false, with the failing step's error, when the file is not open or its
// records could not be read or kept: then nothing is emptied.
bool DriftFileClear();
// Copies into out the first record, from the start, whose check time is strictly greater than
// after_time (seconds since 1970, unsigned comparison). False, with out zeroed, when none is (or
// the file could not be read).
bool DriftFileReadAfter(DriftRecord& out, std::uint32_t after_time);
// Appends one record: variance in ms (saturated to 32 bits), check time in seconds since 1970, bit 0
// of clock_set, the reason, the source's name or dotted address ("Averaged Time" any case: 0;
// unresolvable: 255.255.255.255; resolved before the lock is taken) and the low 7 bits of
// machine_type. At 327,680 bytes or more the file is first trimmed to its newest 8,192 records. The
// record is on disk when this returns true; false, with the last error of the failing step, when
// the file is not open, a torn tail could not be cut, the trim failed (the file keeps every record
// it had), or the record could not be written whole or flushed (the part written is cut off again,
// so the file keeps whole records).
bool DriftFileAppend(std::int64_t variance_ms, std::uint32_t check_time, std::uint32_t clock_set, std::uint8_t reason,
                     const char* source_name, std::uint8_t machine_type);
// Makes sure the file exists and gives it its access rules (everybody reads; administrators and the
// service accounts write). Result and last-error value are those of setting the rules.
bool DriftFileSecure(std::string_view path);
