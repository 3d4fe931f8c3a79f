// The engine's allocator and its value records. Implements torvasin_malloc, torvasin_realloc,
// torvasin_free and the torvasin_valueInit functions of module/torvasin.h, all callable from any
// thread. One record is one caller's at a time.
//
// The memory is the C library's. The engine adds what a record cannot tell: who owns a text. It is
// the ADDRESS of the record that holds it. One ordered map, record address -> text, keeps them; the
// content of a record is never read.
//  - An init at an address releases what that address owned. Its new text may be the old one.
//  - torvasin_realloc moves the ownership of every record inside the block with the block, and
//    releases the texts of the records that a smaller block cuts off.
//  - torvasin_free releases the texts of the records inside the block.
//  - release_all_texts, when the engine ends, releases the rest.
// A record copied by assignment shares the text of the original and does not own it. A null text is
// kept as an empty one, and so is a text for which there is no memory.

#ifndef TORVASIN_ENGINE_MEMORY_H
#define TORVASIN_ENGINE_MEMORY_H

#include <cstddef>
#include <cstdint>

namespace torvasin_engine {

struct memory_stats {
  std::size_t live_blocks;         // blocks allocated and neither freed nor taken as a text
  std::size_t live_texts;          // texts that records own, copied or taken
  std::uint64_t allocation_calls;  // calls of torvasin_malloc and torvasin_realloc since the start
};

memory_stats get_memory_stats();

// Frees every text that a record still owns. No such record may be read afterwards.
void release_all_texts();

// In a forked child: forgets the texts of the parent's records, which stay allocated, and a lock
// that a thread of the parent may have held.
void reset_memory_in_child();

}  // namespace torvasin_engine

#endif  // TORVASIN_ENGINE_MEMORY_H
