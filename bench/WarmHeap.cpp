// This program keeps the memory it frees for reuse instead of handing it back to the system, so
// that subject and reference of every row work on warm memory; a row that measures fresh memory
// says so and releases it on purpose outside its timed region. First touches of fresh pages are
// costly on virtual machines, and left to its own thresholds the allocator would decide from the
// history of block sizes which side of a ratio gets them.
#include <malloc.h>

namespace {

const bool heapKept = [] {
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest block the allocator will keep in its heap
  return true;
}();

}  // namespace
