#pragma once

#include "words.h"

namespace console {

/// What can follow `words`, which begin with a verb or "help", or are empty: verbs, options, values of
/// options, names of stored snapshots, paths of files in a snapshot. Only what can be typed without
/// quotation marks.
Arguments candidates(const Arguments& words);

/// Whether `words` are those before a verb: none, or "help".
bool asks_for_verb(const Arguments& words);

/// Whether any file can follow `words`.
bool asks_for_file(const Arguments& words);

}  // namespace console
