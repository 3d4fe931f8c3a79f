// Prints the meters to standard output.

#ifndef TORVASIN_HOST_LISTING_H
#define TORVASIN_HOST_LISTING_H

namespace torvasin_host {

// A table of all meters: speed, type, whether the meter counts, description, and current value, or
// "-" if it cannot be read.
void print_meters();

// All meters as an ini file with one section each, without what differs between machines.
void print_meters_as_ini();

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_LISTING_H
