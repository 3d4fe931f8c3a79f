// The engine's allocator and its value records. Implements torvasin_malloc, torvasin_realloc,
// torvasin_free and the torvasin_valueInit functions of module/torvasin.h. Any thread may call
// them, but only one at a time for the same record.
//
// The memory comes from the C library. The engine adds what a record cannot tell: who owns a text.
// The owner is the ADDRESS of the record. One ordered map from addresses to texts holds them all;
// the engine never reads the content of a record.
//  - A torvasin_valueInit function frees the text that the record's address owned. The new text may
//    be the old one.
//  - torvasin_realloc moves the texts of all records in the block along with it, and frees those of
//    the records that a smaller block cuts off.
//  - torvasin_free frees the texts of the records in the block.
//  - release_all_texts frees the rest when the engine ends.
// A record copied by assignment shares the text of the original and does not own it. A null text,
// or one for which there is no memory, becomes an empty one.

#ifndef TORVASIN_ENGINE_MEMORY_H
#define TORVASIN_ENGINE_MEMORY_H

#include <cstddef>

namespace torvasin_engine {

struct memory_stats {
  std::size_t live_blocks;  // neither freed nor taken as a text
  std::size_t live_texts;   // that records own, copied or taken
};

memory_stats get_memory_stats();

// Frees all texts that records still own. No such record may be read afterwards.
void release_all_texts();

// In a forked child: forgets the texts of the parent's records, which stay allocated, and resets a
// lock that a thread of the parent may have held.
void reset_memory_in_child();

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_MEMORY_H
