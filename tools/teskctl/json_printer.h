// Scan results as JSON lines: first one object for the response as a whole,
// then one object per scan record with every field of the record, its share
// of the pools and what its information elements say.
#ifndef TESK_TOOLS_TESKCTL_JSON_PRINTER_H_
#define TESK_TOOLS_TESKCTL_JSON_PRINTER_H_

#include <cstdio>
#include <string>

#include "teskclient/result_decoding.h"

void PrintDiscoveryJson(FILE* out, const teskclient::DiscoveryResults& results);
void PrintRangingJson(FILE* out, const teskclient::RangingResults& results);

// The JSON line of record `index` alone (without the newline).
std::string ScanRecordJson(const teskclient::ScanRecords& results, size_t index);

#endif  // TESK_TOOLS_TESKCTL_JSON_PRINTER_H_
