#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "snapshots/archive_reader.h"
#include "snapshots/beneath.h"
#include "snapshots/descriptor.h"
#include "snapshots/early_digests.h"
#include "snapshots/own_descriptors.h"
#include "snapshots/tree.h"

namespace ConfSave::snapshots {

/// Compares the files of archives with the live ones, byte by byte, while they are decoded. With what it
/// knows then, read_tree() reads no file again.
class ContentCheck : public KnownDigests {
 public:
  enum class Digests {
    computed,
    /// All files of the archives get the same digest, whatever they hold, and a live file gets that one or
    /// another: they say only whether two contents differ, and only if needs_digests() does not say no.
    only_compared,
  };

  /// What `early` knows is not computed again; it must outlive this object.
  explicit ContentCheck(Digests digests, const EarlyDigests* early = nullptr)
      : digests_(digests), early_(early), buffer_(kPiece) {}
  ~ContentCheck() override { close_live(); }

  /// Whether the digest of the current file has to be computed.
  bool needs_digest() const { return computes_digests() && known_early_ == nullptr; }

  /// The entries that follow belong into this directory, which ends in "/".
  void enter(const std::string& directory);

  void begin(const Entry& entry);
  void add(std::string_view piece);
  /// Ends a regular file. `computed` is its digest, if that was needed; returns the one that it gets.
  Digest end(const Digest& computed);

  /// Whether the last file of the archives is the same as the live one.
  bool is_equal() const { return is_equal_; }

  const Digest* digest_of(const std::string& path, const Stamp& stamp) const override;

  /// Whether it takes digests to know if the two contents differ: the live file has changed since it was
  /// compared, or it could not be compared.
  bool needs_digests(const Member& archived, const LiveMember& live) const;

 private:
  static constexpr std::size_t kPiece = 128 << 10;

  struct Known {
    Stamp stamp;
    Digest digest{};
  };

  bool computes_digests() const { return digests_ == Digests::computed; }
  /// A small file, read at once: each task in another thread takes as long as reading many files.
  struct Held {
    Stamp stamp;
    std::string content;
  };

  void open_live(const std::string& path);
  void hold_small_files();
  static std::optional<Held> held_of(Beneath& root, const std::string& path);
  bool is_open() const { return live_ || held_ != nullptr; }
  void open_below(Beneath& root, const std::string& path);
  void close_live();
  /// Whether it is as it was when it was opened.
  bool close_unchanged_live();
  /// Runs `task` where the descriptor of the live file is. For small files it would take too long.
  template <class Task>
  void beside_live(const Task& task);
  /// Whether the live file goes on with these bytes.
  bool goes_on_with(std::string_view bytes);

  Digests digests_;
  const EarlyDigests* early_;
  std::string directory_;
  std::optional<Beneath> root_;
  std::set<std::string> locked_paths_;
  std::string path_;                                  ///< of the current file, absolute
  std::optional<std::map<std::string, Held>> small_;  ///< of the configuration database, by relative path
  const Held* held_ = nullptr;                        ///< the live file there, if it is one of these
  std::size_t compared_ = 0;                          ///< how much of it
  bool may_be_locked_ = false;                        ///< whether the host may have locks on it
  OwnDescriptors own_;                                ///< such a file is opened, read and closed there
  Descriptor live_;                                   ///< the live file there, if one can be read
  Stamp stamp_;                                       ///< of it, before it was read
  const LiveMember* known_early_ = nullptr;           ///< the live file, if its digest is known
  std::uint32_t checksum_ = 0;                        ///< then that of the archive's content
  bool is_equal_ = false;
  std::vector<char> buffer_;
  std::unordered_map<std::string, Known> known_;  ///< by absolute path
};

}  // namespace ConfSave::snapshots
