// The lists of meters that the program prints to standard output.

#ifndef TORVASIN_HOST_LISTING_H
#define TORVASIN_HOST_LISTING_H

namespace torvasin_host {

// A table of all meters: speed and type, whether it counts, what it means, and its value now, "-"
// when the system gives none.
void print_meters();

// All meters as an ini file, a section for each, with what stays true on every machine.
void print_meters_as_ini();

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LISTING_H
