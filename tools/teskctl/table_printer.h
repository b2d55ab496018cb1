// Scan results as a readable table: one row per station with what its
// information elements say, then the record's raw values on an indented line.
#ifndef TESK_TOOLS_TESKCTL_TABLE_PRINTER_H_
#define TESK_TOOLS_TESKCTL_TABLE_PRINTER_H_

#include <cstdio>

#include "teskclient/result_decoding.h"

void PrintDiscoveryTable(FILE* out, const teskclient::DiscoveryResults& results);
void PrintRangingTable(FILE* out, const teskclient::RangingResults& results);

#endif  // TESK_TOOLS_TESKCTL_TABLE_PRINTER_H_
