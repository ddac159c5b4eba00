// Prints the table of the contents for the scripts that need it, one entry a line, separated by tabs:
//
//   PATH  config|failover  full,part,corlu  key|-  database|-
//
// The types are "-" for an entry that is deleted before a restore, but never packed.

#include <iostream>
#include <sstream>

#include "contents.h"

int main() {
  using namespace ConfSave;
  for (const ContentsEntry& entry : contents()) {
    std::ostringstream types;
    for (const conftype type : entry.types) types << (types.tellp() > 0 ? "," : "") << type;
    std::cout << entry.path << '\t' << (entry.base == Base::failover ? "failover" : "config") << '\t'
              << (entry.types.empty() ? "-" : types.str()) << '\t'
              << (entry.holds == Holds::keys ? "key" : "-") << '\t'
              << (entry.holds == Holds::database ? "database" : "-") << '\n';
  }
}
