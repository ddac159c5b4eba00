#pragma once

#include <string>

namespace ConfSave::snapshots {

/// Who runs this process, as far as the system says.
struct Person {
  std::string user;
  std::string login;     ///< whom the session belongs to; may be empty
  std::string terminal;  ///< without "/dev/"; may be empty
};

Person person();

/// The same for people, for example "root (anna, pts/3)".
std::string author();

}  // namespace ConfSave::snapshots
