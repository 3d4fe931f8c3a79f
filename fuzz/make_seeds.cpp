// make_seeds DIRECTORY: writes the initial inputs of the targets to pipeline/, config/ and check/
// in it.

#include <filesystem>
#include <fstream>

#include "support.h"

const std::string start = "30 05 06 01 00 05 00 ";
const std::string up_time = "30 0C 06 08 2B 06 01 02 01 01 03 00 05 00 ";
const std::string number = "30 13 06 0A 2B 06 01 04 01 86 8D 1F 00 00 41 05 00 FF FF FF FF ";
const std::string text = "30 0F 06 0B 2B 06 01 04 01 86 8D 1F 03 8A 78 05 00 ";  // of 1400 octets
const std::string deepest =
    null_varbind({1, 3, 7, 4294967295, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
const std::string five = up_time + start + deepest + text + number;

const request_parts requests[] = {
    {},
    {.version = "02 01 00", .community = "04 01 78", .pdu_tag = 0xA1, .varbinds = start},
    {.pdu_tag = 0xA1, .id = "02 05 00 FF FF FF FF", .varbinds = start + text},
    {.pdu_tag = 0xA5, .second = "02 01 01", .third = "02 01 7F", .varbinds = start + number},
    {.community = "04 03 61 00 62", .varbinds = five + five + five + five},
    {.pdu_tag = 0xA5, .third = "02 01 14", .varbinds = start + deepest + up_time},
};

const std::string configs[] = {
    "[General]\nip = 127.0.0.1\nport=1161\ninclude = /proc/self/fd/100\n; comment\n"
    "[ITEM_a]\noid = .1.3.6.0\nmeter = Load\nmetertype = fast\ntype = "
    "uint:4294967295\ncomputeformula = value*8/100+1\n",
    "[ITEM_s]\noid=1.3.6.1\ntype=string:text\ncomputeformula=value\n[ITEM_n]\ntype=string\n",
    "[ITEM_i]\ntype=int:-1\n continued\noid=1..3\ncomputeformula=pow(fac(value),-1e3)*(1,2)%pi()\n",
    "\xEF\xBB\xBF [ITEM_a\t;x]\n# c\n[ITEM_b] x\n\toid = 1.3.7 ; c\n=\n type: int:1\r\n[ITEM_c\nno "
    "key\n",
};

int main(int count, char** arguments) {
  if (count != 2) return 2;
  const auto write = [&](const std::string& target, ptrdiff_t i, const auto& content) {
    const std::string directory = arguments[1] + target;
    std::filesystem::create_directories(directory);
    std::ofstream(directory + std::to_string(i)) << std::string(content.begin(), content.end());
  };
  for (const request_parts& one : requests) write("/pipeline/", &one - requests, build(one));
  write("/pipeline/", std::ssize(requests), from_hex("30 02 02 01"));
  for (const std::string& one : configs) {
    for (const char* target : {"/config/", "/check/"}) write(target, &one - configs, one);
  }
}
