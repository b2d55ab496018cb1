// Records in and out of invocation buffers, shared by both scan objects.
#ifndef TESK_SCAN_OBJECT_BUFFERS_H_
#define TESK_SCAN_OBJECT_BUFFERS_H_

#include <cstdint>
#include <cstring>

#include <tesk/object.h>

#include "scan/vector.h"

// Record `index` of an input buffer. Buffers arrive as the peer sent them,
// without any alignment promise, so the record is copied out.
template <typename T>
T ReadRecord(const ObjectBuf& buf, uint64_t index) {
  T record;
  memcpy(&record, static_cast<const unsigned char*>(buf.ptr) + index * sizeof(T), sizeof(T));
  return record;
}

// Appends convert(record) to `out` for each whole record of `buf`, in order;
// a trailing partial record is ignored. A failed append is logged by the
// array and that element is simply missing.
template <typename Record, typename T, typename Convert>
void DecodeRecords(const ObjectBuf& buf, ky_loc_fw::vector<T>& out, Convert&& convert) {
  for (uint64_t i = 0; i < buf.size / sizeof(Record); ++i) {
    out.push_back(convert(ReadRecord<Record>(buf, i)));
  }
}

// A whole array as one delivery buffer, used in place; an empty array goes
// out as {null, 0}.
template <typename T>
ObjectBuf FlatBuffer(const ky_loc_fw::vector<T>& array) {
  const uint32_t count = array.getCount();
  return ObjectBuf{count != 0 ? const_cast<T*>(array.getData()) : nullptr,
                   static_cast<uint64_t>(count) * sizeof(T)};
}

#endif  // TESK_SCAN_OBJECT_BUFFERS_H_
