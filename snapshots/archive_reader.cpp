#include "snapshots/archive_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <unordered_map>

#include "snapshots/archive_path.h"
#include "snapshots/gunzip.h"
#include "snapshots/libarchive.h"
#include "snapshots/text.h"
#include "snapshots/utf8_names.h"

namespace ConfSave::snapshots {
namespace {

/// Of a user or group in the seven octal digits of a plain header.
constexpr std::uint32_t kLargestInHeader = 07777777;

using Reader = std::unique_ptr<struct archive, decltype(Libarchive::archive_read_free)>;

/// What libarchive's callback reads from, and what went wrong in it.
struct Input {
  Source& source;
  Error error;
  std::exception_ptr thrown;

  Result<std::string_view> next() {
    Result<std::string_view> piece = source.next();
    if (!piece) error = piece.error();
    return piece;
  }
};

/// No exception may cross libarchive.
la_ssize_t read_input(struct archive*, void* context, const void** bytes) noexcept {
  auto& input = *static_cast<Input*>(context);
  try {
    const Result<std::string_view> piece = input.next();
    if (!piece) return ARCHIVE_FATAL;
    *bytes = piece->data();
    return static_cast<la_ssize_t>(piece->size());
  } catch (...) {
    input.thrown = std::current_exception();
    return ARCHIVE_FATAL;
  }
}

/// As the header says. Where the archive has an access list, libarchive puts the permissions of the owning
/// group into the mode, in the place of the mask.
std::uint32_t mode_of(const Libarchive& library, struct archive_entry* entry) {
  const std::uint32_t mode = library.archive_entry_perm(entry);
  if (library.archive_entry_acl_reset(entry, ARCHIVE_ENTRY_ACL_TYPE_ACCESS) == 0) return mode;
  int type = 0;
  int permissions = 0;
  int tag = 0;
  int id = 0;
  const char* name = nullptr;
  while (library.archive_entry_acl_next(entry, ARCHIVE_ENTRY_ACL_TYPE_ACCESS, &type, &permissions, &tag,
                                        &id, &name) == ARCHIVE_OK) {
    if (tag != ARCHIVE_ENTRY_ACL_MASK) continue;
    return (mode & ~static_cast<std::uint32_t>(S_IRWXG)) | (static_cast<unsigned>(permissions) & 07U) << 3U;
  }
  return mode;
}

std::string text_of(const char* text) { return text != nullptr ? text : ""; }

/// Remembers what is in the archive so far, so that nothing is put through a link of it.
class Paths {
 public:
  explicit Paths(const Limits& limits) : limits_(limits) {}

  /// Code::unsafe when `entry` cannot be put where it belongs without following a link.
  Error add(const Entry& entry) {
    if (!has_room_for(entry.path)) return unsafe(entry, "the names of the members are too long in all");
    for (std::size_t end = entry.path.find('/'); end != std::string::npos;
         end = entry.path.find('/', end + 1)) {
      const auto parent = kinds_.find(entry.path.substr(0, end));
      if (parent != kinds_.end() && parent->second == Kind::symlink) {
        return unsafe(entry, "a member is below a symbolic link of the same archive");
      }
      if (parent != kinds_.end() && parent->second != Kind::directory) {
        return unsafe(entry, "a member is below a file of the same archive");
      }
      kinds_.emplace(entry.path.substr(0, end), Kind::directory);
    }
    const auto before = kinds_.find(entry.path);
    if (before != kinds_.end() && before->second == Kind::symlink && entry.kind == Kind::directory) {
      return unsafe(entry, "a directory takes the place of a symbolic link of the same archive");
    }
    const bool was_directory = before != kinds_.end() && before->second == Kind::directory;
    if (was_directory && entry.kind != Kind::directory) {
      return unsafe(entry, "a member takes the place of a directory of the same archive");
    }
    if (entry.kind == Kind::hardlink) {
      const auto file = kinds_.find(entry.target);
      if (file == kinds_.end() || file->second == Kind::directory || file->second == Kind::symlink) {
        return unsafe(entry, "a hard link points to no earlier file of the archive");
      }
    }
    kinds_[entry.path] = entry.kind;
    return {};
  }

 private:
  static Error unsafe(const Entry& entry, const char* text) {
    return {Code::unsafe, 0, printable(entry.path), text};
  }

  /// Each directory of a path is looked up and remembered under its own path: a small archive of deep
  /// paths would take gigabytes.
  bool has_room_for(const std::string& path) {
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
      size_ += end;
    }
    size_ += path.size();
    return size_ <= limits_.paths;
  }

  const Limits& limits_;
  std::size_t size_ = 0;
  std::unordered_map<std::string, Kind> kinds_;
};

class ArchiveReading {
 public:
  ArchiveReading(const Libarchive& library, Source& packed, const Limits& limits,
                 const EntryHandler& handler)
      : library_(library),
        limits_(limits),
        handler_(handler),
        gunzip_(packed, limits),
        input_{gunzip_, {}, nullptr},
        reader_(nullptr, library.archive_read_free),
        paths_(limits) {}

  Error run() {
    Error error = open();
    bool more = error.code == Code::ok;
    while (more) error = read_entry(more);
    if (error.code == Code::ok) error = drain();
    return error;
  }

 private:
  Error open() {
    reader_.reset(library_.archive_read_new());
    if (reader_ == nullptr) throw std::bad_alloc();
    const bool is_ready = library_.archive_read_support_format_tar(reader_.get()) == ARCHIVE_OK &&
                          library_.archive_read_support_format_empty(reader_.get()) == ARCHIVE_OK;
    if (!is_ready) throw std::bad_alloc();
    // Names are bytes: no locale may change or refuse them.
    library_.archive_read_set_format_option(reader_.get(), "tar", "hdrcharset", "BINARY");
    if (library_.archive_read_open(reader_.get(), &input_, nullptr, read_input, nullptr) == ARCHIVE_OK)
      return {};
    Error error = failure();
    // Before it has read anything, libarchive gives no reason only where memory runs out.
    if (library_.archive_errno(reader_.get()) == 0 && input_.error.code == Code::ok) throw std::bad_alloc();
    return error;
  }

  /// What ended the reading: the input's own error, else libarchive's.
  Error failure() const {
    if (input_.thrown) std::rethrow_exception(input_.thrown);
    if (input_.error.code != Code::ok) return input_.error;
    if (library_.archive_errno(reader_.get()) == ENOMEM) throw std::bad_alloc();
    const std::string text = text_of(library_.archive_error_string(reader_.get()));
    return {Code::damaged, 0, printable(current_.path), "the tar archive is damaged: " + printable(text)};
  }

  Error read_entry(bool& more) {
    struct archive_entry* entry = nullptr;
    const int code = library_.archive_read_next_header(reader_.get(), &entry);
    more = false;
    if (code == ARCHIVE_EOF) return {};
    if (code != ARCHIVE_OK && !(code == ARCHIVE_WARN && is_about_a_name())) return failure();
    if (++count_ > limits_.members) {
      return {Code::unsafe, 0, "",
              "the archive has more than " + std::to_string(limits_.members) + " members"};
    }
    Error error = convert(entry);
    // The destination itself, as "." is, stays as it is.
    if (error.code == Code::ok && !current_.path.empty()) error = deliver();
    more = error.code == Code::ok;
    return error;
  }

  /// Whether a warning says that a name is not UTF-8: its bytes count. tar fails where the others are.
  bool is_about_a_name() const {
    return text_of(library_.archive_error_string(reader_.get())).find("can't be converted") !=
           std::string::npos;
  }

  /// A larger number is in a record of its own, which counts more for tar than the name.
  bool is_pax() const {
    return library_.archive_format(reader_.get()) == ARCHIVE_FORMAT_TAR_PAX_INTERCHANGE;
  }

  Error convert(struct archive_entry* entry) {
    const std::string stored = text_of(library_.archive_entry_pathname(entry));
    current_ = {};
    if (Error error = normalize(stored, limits_, current_.path); error.code != Code::ok) return error;
    current_.mode = mode_of(library_, entry);
    current_.uid = static_cast<std::uint32_t>(library_.archive_entry_uid(entry));
    current_.gid = static_cast<std::uint32_t>(library_.archive_entry_gid(entry));
    if (current_.uid <= kLargestInHeader || !is_pax()) {
      current_.user = text_of(library_.archive_entry_uname(entry));
    }
    if (current_.gid <= kLargestInHeader || !is_pax()) {
      current_.group = text_of(library_.archive_entry_gname(entry));
    }
    current_.time = library_.archive_entry_mtime(entry);
    if (const char* link = library_.archive_entry_hardlink(entry); link != nullptr) {
      current_.kind = Kind::hardlink;
      return normalize(link, limits_, current_.target);
    }
    return convert_type(entry);
  }

  Error convert_type(struct archive_entry* entry) {
    switch (library_.archive_entry_filetype(entry)) {
      case AE_IFREG:
        current_.size = library_.archive_entry_size(entry);
        has_holes_ = library_.archive_entry_sparse_count(entry) > 0;
        return {};
      case AE_IFDIR:
        current_.kind = Kind::directory;
        return {};
      case AE_IFLNK:
        current_.kind = Kind::symlink;
        current_.target = text_of(library_.archive_entry_symlink(entry));
        return {};
      default:
        return {Code::unsafe, 0, printable(current_.path), "a member is a device, a FIFO or a socket"};
    }
  }

  Error deliver() {
    if (Error error = paths_.add(current_); error.code != Code::ok) return error;
    if (Error error = handler_.begin(current_); error.code != Code::ok) return error;
    if (current_.kind == Kind::file) {
      if (Error error = deliver_content(); error.code != Code::ok) return error;
    }
    return handler_.end();
  }

  Error deliver_content() {
    delivered_ = 0;
    for (;;) {
      const void* bytes = nullptr;
      std::size_t size = 0;
      la_int64_t offset = 0;
      const int code = library_.archive_read_data_block(reader_.get(), &bytes, &size, &offset);
      if (code == ARCHIVE_EOF) return finish_content();
      if (code != ARCHIVE_OK) return failure();
      if (Error error = deliver_zeros_up_to(offset); error.code != Code::ok) return error;
      if (Error error = deliver_piece({static_cast<const char*>(bytes), size}); error.code != Code::ok)
        return error;
    }
  }

  Error finish_content() {
    const bool is_longer = delivered_ > current_.size;
    const bool is_whole = delivered_ == current_.size || has_holes_;
    if (!is_longer && is_whole) return deliver_zeros_up_to(current_.size);
    // The map of a sparse file reaches beyond its size, or a record names a size that the content of a file
    // without holes does not have: tar and libarchive restore different files.
    const char* how = is_longer ? "longer" : "shorter";
    return {Code::damaged, 0, printable(current_.path),
            "the content is " + std::string(how) + " than the header says"};
  }

  /// The holes of a sparse file are not in the packed bytes.
  Error deliver_zeros_up_to(int64 offset) {
    static const char zeros[64 << 10] = {};
    while (delivered_ < offset) {
      const auto size = std::min(offset - delivered_, static_cast<int64>(sizeof zeros));
      Error error = deliver_piece({zeros, static_cast<std::size_t>(size)});
      if (error.code != Code::ok) return error;
    }
    return {};
  }

  Error deliver_piece(std::string_view piece) {
    delivered_ += static_cast<int64>(piece.size());
    content_size_ += static_cast<int64>(piece.size());
    // The holes of sparse files count too.
    if (Error error = gunzip_.check_size(content_size_); error.code != Code::ok) {
      error.path = printable(current_.path);
      return error;
    }
    return piece.empty() ? Error{} : handler_.content(piece);
  }

  /// What follows the end of the tar archive is ignored, but must unpack: the checksum comes last.
  Error drain() {
    for (;;) {
      const Result<std::string_view> piece = gunzip_.next();
      if (!piece) return piece.error();
      if (piece->empty()) return {};
    }
  }

  const Libarchive& library_;
  const Limits& limits_;
  const EntryHandler& handler_;
  Gunzip gunzip_;
  Input input_;
  Reader reader_;
  Paths paths_;
  Entry current_;
  int64 delivered_ = 0;  ///< bytes of the current file
  bool has_holes_ = false;
  int64 count_ = 0;
  int64 content_size_ = 0;
};

}  // namespace

Error read_archive(Source& packed, const Limits& limits, const EntryHandler& handler) {
  const Result<const Libarchive*> library = libarchive();
  if (!library) return library.error();
  const Utf8Names names;
  return ArchiveReading(**library, packed, limits, handler).run();
}

}  // namespace ConfSave::snapshots
