#pragma once

// The tables of verbs, operands and options. The command line, the help and the completion are made from
// them.

#include <string>

#include "options.h"

namespace console {

struct Operand {
  const char* name;
  bool required;
  bool is_snapshot;
  const char* effect;
  void (*set)(const std::string& value, Options& options);
};

struct Option {
  const char* name;
  const char* value;   ///< the name of its value; empty for a flag
  const char* values;  ///< the values that completion offers, each followed by a blank
  const char* effect;
  void (*set)(const std::string& value, Options& options);
};

/// What is special about a verb.
enum Trait : unsigned {
  kPlain = 0,
  kInterruptible = 1,  ///< prints what an interrupt left behind, and then ends by it
  kSettling = 2,       ///< says itself what is to say about an earlier restore, or nothing
  kChanging = 4,       ///< finishes or undoes an interrupted restore before it does anything else
};

struct Verb {
  const char* name;
  const Operand* first;  ///< null: none
  const Operand* second;
  unsigned traits;
  const char* options;   ///< names of options, each followed by a blank
  const char* required;  ///< those that must be given
  const char* effect;
  int (*run)(const Options& options);
};

/// A table, to go through.
template <class Entry>
struct Table {
  const Entry* first;
  const Entry* last;
  const Entry* begin() const { return first; }
  const Entry* end() const { return last; }
};

Table<Verb> verbs();
Table<Option> option_table();

const Verb* find_verb(const std::string& name);
const Option* find_option(const std::string& name);

/// Whether `word` is in a list of words that are each followed by a blank.
bool lists(const char* list, const std::string& word);

/// What the tables cannot express: options that exclude each other. Empty when there is nothing wrong.
std::string contradiction(const Verb& verb, const Options& options);

}  // namespace console
