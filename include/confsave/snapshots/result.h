#pragma once

// How a call of <confsave/snapshots.h> ends: with a value, or with an Error.

#include <string>
#include <utility>
#include <variant>

namespace ConfSave::snapshots {

/// Why a function failed.
enum class Code {
  ok,
  bad_argument,       ///< the call is wrong; nothing was done
  not_found,          ///< no snapshot matches, or a snapshot has no such member
  ambiguous,          ///< more than one snapshot matches
  taken,              ///< a snapshot of this name and version, or the file to export to, exists
  pinned,             ///< the snapshot is protected from being deleted
  busy,               ///< another process, or thread of this one, holds a lock, and the wait is over
  pending,            ///< a restore waits for its check or for confirm(), and would be disturbed
  not_pending,        ///< no restore waits for confirm(); the text says what became of the last one
  incomplete,         ///< nothing is there to be saved, or a restore would delete what cannot be kept
  damaged,            ///< an archive cannot be decoded to its end, or a row has values of the wrong type
  unsafe,             ///< an archive has a member that a restore must not follow
  changed_meanwhile,  ///< a file, directory or snapshot changed during the call, or since the plan
  denied,             ///< permission, or a file system that is read-only
  check_failed,       ///< the check of a restore failed, and the restore was taken back
  newer,              ///< of a newer version: a file that a newer ConfSave wrote, or a snapshot to restore
  no_space,           ///< a file system or quota is full
  no_storage,         ///< "storage.db" cannot be opened, or is not a storage
  needs_attention,    ///< an interrupted restore cannot be undone; the text says what a person has to do
  failed,             ///< a system call failed; `number` says how
};

/// What a call that has failed has left behind.
enum class Aftermath {
  untouched,  ///< nothing was changed
  put_back,   ///< what was changed is as it was before
  mixed,      ///< some files are not as they were; path and text name them; recover() tries again
  /// Of a call that stores or deletes: its commit failed so late that it may have taken effect, as a whole
  /// and with comment and pin, and that a power cut may take it back. list() shows whether it has.
  perhaps_done,
};

/// A failure.
struct Error {
  Code code = Code::ok;
  int number = 0;  ///< errno, or SQLite's extended code for a file that SQLite could not use; 0 if neither
  /// The file or member that it is about; may be empty. For messages: control characters may be escaped.
  std::string path;
  std::string text;  ///< one sentence without the path, without a line end
  /// Of restore(), recover() and revert(), of each other call that recovers first, and of those that store
  /// or delete.
  Aftermath aftermath = Aftermath::untouched;
};

/// Either a Value or an Error.
template <class Value>
class [[nodiscard]] Result {
 public:
  // Implicit, so that a function returns either.
  // NOLINTBEGIN(google-explicit-constructor)
  // cppcheck-suppress noExplicitConstructor
  Result(Value value) : content_(std::move(value)) {}
  // cppcheck-suppress noExplicitConstructor
  Result(Error error) : content_(std::move(error)) {}
  // NOLINTEND(google-explicit-constructor)

  /// True if there is a value.
  explicit operator bool() const { return std::holds_alternative<Value>(content_); }

  /// The value. Only if there is one. That of a temporary is moved out: it may be kept, as in
  /// `for (const Snapshot& snapshot : *list())`.
  Value& operator*() & { return *std::get_if<Value>(&content_); }
  const Value& operator*() const& { return *std::get_if<Value>(&content_); }
  Value operator*() && { return std::move(*std::get_if<Value>(&content_)); }
  Value* operator->() { return std::get_if<Value>(&content_); }
  const Value* operator->() const { return std::get_if<Value>(&content_); }

  /// The error. Only if there is no value.
  const Error& error() const& { return *std::get_if<Error>(&content_); }
  Error error() && { return std::move(*std::get_if<Error>(&content_)); }

 private:
  std::variant<Value, Error> content_;
};

}  // namespace ConfSave::snapshots
