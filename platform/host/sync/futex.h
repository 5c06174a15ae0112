// Sleeping on a word of memory, for the host kernel's own files. Nothing here touches the word's memory except
// through the atomic that the caller owns; waking an address whose memory was reused meanwhile is harmless.
#pragma once
#include <atomic>
#include <ctime>
#include "platform/host/nt/ntdef.h"

namespace host::futex {

// Sleeps while `word` is `expected`, until woken or until `deadline` on the monotonic clock (null: for ever).
// May return early. False when the deadline passed and no wake-up was spent on this thread.
bool Wait(std::atomic<LONG>& word, LONG expected, const timespec* deadline);
void WakeOne(std::atomic<LONG>* word);
void WakeAll(std::atomic<LONG>* word);

}  // namespace host::futex
