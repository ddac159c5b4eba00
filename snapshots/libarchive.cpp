#include "snapshots/libarchive.h"

#include <dlfcn.h>

#include <mutex>
#include <optional>
#include <type_traits>

namespace ConfSave::snapshots {
namespace {

constexpr const char* kLibrary = "libarchive.so.13";
static_assert(ARCHIVE_VERSION_NUMBER / 1000000 == 3, "kLibrary is the one of version 3");

/// Stays loaded unless a function is missing.
class Loading {
 public:
  Loading() : handle_(dlopen(kLibrary, RTLD_LAZY | RTLD_LOCAL)) {}
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;
  ~Loading() {
    if (handle_ != nullptr && !is_whole_) dlclose(handle_);
  }

  Result<Libarchive> functions() {
    Libarchive library{};
    is_whole_ = handle_ != nullptr && find_all(library);
    if (is_whole_) return library;
    const char* reason = dlerror();
    return Error{Code::failed, 0, kLibrary,
                 "archives are read with this library, which cannot be loaded: " +
                     std::string(reason != nullptr ? reason : "no reason is given")};
  }

 private:
  template <class Function>
  bool find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(handle_, name));
    return function != nullptr;
  }

  bool find_all(Libarchive& library) {
    return find(library.archive_read_new, "archive_read_new") &&
           find(library.archive_read_free, "archive_read_free") &&
           find(library.archive_read_support_format_tar, "archive_read_support_format_tar") &&
           find(library.archive_read_support_format_empty, "archive_read_support_format_empty") &&
           find(library.archive_read_set_format_option, "archive_read_set_format_option") &&
           find(library.archive_read_open, "archive_read_open") &&
           find(library.archive_read_next_header, "archive_read_next_header") &&
           find(library.archive_read_data_block, "archive_read_data_block") &&
           find(library.archive_errno, "archive_errno") &&
           find(library.archive_error_string, "archive_error_string") &&
           find(library.archive_format, "archive_format") &&
           find(library.archive_entry_acl_next, "archive_entry_acl_next") &&
           find(library.archive_entry_acl_reset, "archive_entry_acl_reset") &&
           find(library.archive_entry_filetype, "archive_entry_filetype") &&
           find(library.archive_entry_gid, "archive_entry_gid") &&
           find(library.archive_entry_gname, "archive_entry_gname") &&
           find(library.archive_entry_hardlink, "archive_entry_hardlink") &&
           find(library.archive_entry_mtime, "archive_entry_mtime") &&
           find(library.archive_entry_pathname, "archive_entry_pathname") &&
           find(library.archive_entry_perm, "archive_entry_perm") &&
           find(library.archive_entry_size, "archive_entry_size") &&
           find(library.archive_entry_sparse_count, "archive_entry_sparse_count") &&
           find(library.archive_entry_symlink, "archive_entry_symlink") &&
           find(library.archive_entry_uid, "archive_entry_uid") &&
           find(library.archive_entry_uname, "archive_entry_uname");
  }

  void* handle_;
  bool is_whole_ = false;
};

}  // namespace

Result<const Libarchive*> libarchive() {
  static std::mutex mutex;
  static std::optional<Libarchive> library;
  static_assert(std::is_trivially_destructible_v<Libarchive>, "a host that exits may still read archives");
  const std::lock_guard<std::mutex> lock(mutex);
  if (!library) {
    Result<Libarchive> loaded = Loading().functions();
    if (!loaded) return loaded.error();
    library = *loaded;
  }
  return &*library;
}

}  // namespace ConfSave::snapshots
