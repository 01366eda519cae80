#pragma once
// Heap settings for a process whose bodies of megabytes come and go all the time (relays,
// pushes, chunks read through a volume). Call once at the start of main, before threads.

namespace skiff {

void tuneHeapForLargeBodies();

}  // namespace skiff
