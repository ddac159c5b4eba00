#pragma once

// App::load, and what it asks and prints, for its tests.

#include <string>

#include "confsave.h"
#include "support/dialogue.h"

namespace test {

inline const std::string kAskToSave = "Save current configuration [Y/n]? ";
inline const std::string kLoadWeekly = "Loading configuration 'weekly'.\n";
inline const std::string kNobody = "Loading configuration 'nobody'.\nUnknown error: 0.\n";
inline const std::string kNotFound = "Unknown error: 0.\n";
inline const std::string kInsertBefore = insert_of("before", "0");
inline const std::string kDeleteBefore = delete_of("before", "0");
inline const std::string kSelectWeekly = select_of("weekly", "0");

/// The input that restores without saving first, and the transcript before the restore.
inline const std::string kRecklessly = "n\nYes, do as I say\n";
inline const std::string kReckless =
    "Save current configuration [Y/n]? ‹n›\n"
    "You are about to overwrite your existing configuration.\n"
    "This is unsafe. To continue, type \n"
    ">>> Yes, do as I say\n"
    "in response to the prompt:\n"
    ">>> ‹Yes, do as I say›\n";
/// The same for saving first as "before", a free name.
inline const std::string kCarefully = "\nbefore\n";
inline const std::string kAskBefore =
    "Save current configuration [Y/n]? ‹›\n"
    "Name for the current configuration: ‹before›\n";
/// The same for saving first as "before", a taken name.
inline const std::string kOverBefore = "\nbefore\ny\n";
inline const std::string kOverwriteBefore =
    "Save current configuration [Y/n]? ‹›\n"
    "Name for the current configuration: ‹before›\n"
    "Config 'before' exists. Overwrite? ‹y›\n";

inline const LogRecord kTryToLoad = says(kLoad, 2, "Try to load");

class AppLoad : public Dialogue {
 protected:
  std::string load(const std::string& typed, const std::string& name = "weekly") {
    return dialogue(typed, [&] { ConfSave::App::load(name); });
  }

  LogRecord bytes() const { return says(kLoad, 2, "sqlite3_column_bytes: " + sizes, {4, 4}); }

  const Rows weekly{{"1", "weekly", "0", "1", "1000", "NULL"}};
};

}  // namespace test
