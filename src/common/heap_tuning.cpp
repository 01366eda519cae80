#include "common/heap_tuning.hpp"

#include <malloc.h>

namespace skiff {

void tuneHeapForLargeBodies() {
    // Kept in the heap and reused, megabyte bodies cost no page faults; two arenas instead
    // of one per thread, and a trim threshold, keep a burst from leaving its memory spread
    // over idle arenas.
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);
}

}  // namespace skiff
