// How the C library's heap treats the memory that scans free.
#ifndef TESK_SCAN_SCAN_HEAP_H_
#define TESK_SCAN_SCAN_HEAP_H_

// A scan of thousands of access points builds and frees tens of megabytes at
// a time: the location library's response and the record arrays marshalled
// from it. By default glibc maps blocks that big afresh for every scan and
// hands the top of its heap back to the kernel after each, so every scan
// faults all those pages in again. After this call the heap keeps what a
// scan freed for the next one; the IPC library gives free heap memory back
// once its service has been idle for a second. Call before any thread
// starts. Other C libraries have their own policies and are left alone.
void KeepScanMemoryForTheNextScan();

#endif  // TESK_SCAN_SCAN_HEAP_H_
