#include "scan/scan_heap.h"

// Also what defines __GLIBC__ under glibc.
#include <malloc.h>

namespace {

#ifdef __GLIBC__
// Blocks below this come from the heap and stay there once freed: every
// record array of a scan of up to about 40,000 access points. 16 MiB is the
// most that glibc accepts on 32-bit targets.
constexpr int kMapThreshold = 16 << 20;
// The free top of the heap goes back to the kernel only beyond this: more
// than a scan of 10,000 access points frees at once (about 35 MB).
constexpr int kTrimThreshold = 64 << 20;
#endif

}  // namespace

void KeepScanMemoryForTheNextScan() {
#ifdef __GLIBC__
  // Fixed values also end glibc's own adjustment of both thresholds.
  mallopt(M_MMAP_THRESHOLD, kMapThreshold);   // NOLINT(concurrency-mt-unsafe): no thread yet
  mallopt(M_TRIM_THRESHOLD, kTrimThreshold);  // NOLINT(concurrency-mt-unsafe)
  // Fast bins stay on. Without them (M_MXFAST 0) a freed response coalesces
  // as it is freed, after its delivery, instead of in the next scan's first
  // large allocation: scans of about a thousand access points measured a
  // quarter to two-fifths faster, but the common small scan a few percent
  // slower.
#endif
}
