#pragma once

#include <histedit.h>

namespace console {

/// The functions of libedit that the shell takes.
struct Libedit {
  decltype(&::el_init) el_init;
  decltype(&::el_set) el_set;
  decltype(&::el_wset) el_wset;
  decltype(&::el_gets) el_gets;
  decltype(&::el_line) el_line;
  decltype(&::el_insertstr) el_insertstr;
  decltype(&::history_init) history_init;
  decltype(&::history) history;
};

/// Loads libedit, which brings three libraries along, and keeps it: every other verb starts faster without
/// them. Null if it cannot be loaded; then `why` gets the reason.
const Libedit* libedit(const char*& why);

}  // namespace console
