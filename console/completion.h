#pragma once

#include "words.h"

namespace console {

/// What can follow `words`, which begin with a verb or are empty: verbs, options, values of options, names
/// of stored snapshots, paths of files in a snapshot. Only what can be typed without quotation marks.
Arguments candidates(const Arguments& words);

}  // namespace console
