// Listing drift records as `chronwarden history` prints them: text, CSV or JSON.
#pragma once
#include <cstdint>
#include <string_view>

#include "drift/drift_record.h"

enum class DriftListFormat { Text, Csv, Json };

// Prints count records. JSON: {"<json_key>": "<json_value>", "records": [...]}; text ends with
// the number of records.
void PrintDriftRecords(const DriftRecord* records, std::uint32_t count, DriftListFormat format,
                       std::string_view json_key, std::string_view json_value);
