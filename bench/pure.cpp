// The library's pure parts, each many times, to be counted by callgrind: a count does not depend on how
// busy the machine is.
//
//   bench-pure PART ROUNDS

#include <confsave.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "storage/statements.h"

namespace {

using namespace ConfSave;

const std::map<std::string, std::function<void()>> kParts{
    {"version-to-text", [] { Config::version(CURRENT_VERSION); }},
    {"text-to-version", [] { Config(0).vers_convert("4.5.4"); }},
    {"statement", [] { sql::insert_row("weekly", CURRENT_VERSION, 1488377100, conf_full); }},
    {"time", [] { time_format(1488377100); }},
    {"record-line",
     [] {
       static std::ostringstream line;
       line.str("");
       static const Config config(CURRENT_VERSION);
       line << config;
     }},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto& part = kParts.at(argv[1]);
  for (long round = std::strtol(argv[2], nullptr, 10); round > 0; --round) part();
}
