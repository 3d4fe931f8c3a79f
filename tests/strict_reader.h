// A strict reader of the agent's responses, written apart from its codec: every length exact and in
// its shortest form, every integer in its shortest form, nothing missing and nothing left over.

#ifndef TORVASIN_TESTS_STRICT_READER_H
#define TORVASIN_TESTS_STRICT_READER_H

#include <cstdint>
#include <string>
#include <vector>

struct read_response {
  int64_t version;
  std::string community;
  int64_t id, error_status, error_index;
  std::vector<std::pair<std::vector<uint32_t>, std::vector<uint8_t>>> varbinds;  // name; tag, length and content
};

// Null when the message is a well-formed GetResponse, else what is wrong with it.
const char* read_strictly(const uint8_t* message, size_t length, read_response* response);

// "status index: name=value, ..." with names dotted and values in hex; a fault as itself.
std::string describe(const uint8_t* message, size_t length);

#endif  // TORVASIN_TESTS_STRICT_READER_H
