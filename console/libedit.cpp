#include "libedit.h"

#include <dlfcn.h>

namespace console {
namespace {

template <class Function>
bool find(void* library, Function& function, const char* name) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

}  // namespace

const Libedit* libedit(const char*& why) {
  static Libedit found{};
  void* const library = dlopen("libedit.so.2", RTLD_LAZY | RTLD_LOCAL);
  const bool is_whole =
      library != nullptr && find(library, found.el_init, "el_init") &&
      find(library, found.el_set, "el_set") && find(library, found.el_wset, "el_wset") &&
      find(library, found.el_gets, "el_gets") && find(library, found.el_line, "el_line") &&
      find(library, found.el_insertstr, "el_insertstr") &&
      find(library, found.history_init, "history_init") && find(library, found.history, "history");
  if (!is_whole) why = dlerror();
  return is_whole ? &found : nullptr;
}

}  // namespace console
