// Where pool blocks get their memory. As on the platform, non-paged pool is mapped by large pages and blocks of
// usual sizes come from lists of the thread's own, so that neither a page table walk nor a shared lock is part
// of an allocation or of a search through many small blocks. For pool_block.cpp.
#pragma once
#include "platform/host/nt/ntdef.h"

namespace host {

// At least `bytes` bytes, 16-byte aligned; null when the host has no memory. Blocks that a thread takes one
// after another lie one behind the other as far as none was given back.
void* TakePoolMemory(SIZE_T bytes);
// `bytes` as when it was taken. Any thread may give it back.
void GivePoolMemory(void* memory, SIZE_T bytes);

}  // namespace host
