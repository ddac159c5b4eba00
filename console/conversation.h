#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>

namespace console {

/// Stands between the library and the person while it lives: passes on what is said, notes it, and steps
/// in where the library would take a name that cannot be stored.
///
/// To the question for the current configuration's name only a valid name gets through; after any other it
/// is asked again. With `was_saved` it protects a restore as well: the end of input is no answer to any
/// question, and that the current configuration was saved is not taken on the library's word. Either throws
/// ConfSave::XCancel into the library, before anything is overwritten.
class Conversation {
 public:
  /// `was_saved(name, since)`: whether a configuration of that name was stored since then.
  using Proof = std::function<bool(const std::string& name, std::time_t since)>;

  explicit Conversation(Proof was_saved = nullptr);
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;
  ~Conversation();

  /// What the library said so far.
  const std::string& output() const;
  const std::string& errors() const;

  bool said(const std::string& text) const;

  /// Whether the library said that it saved what it did not.
  bool disproved() const;

 private:
  struct Streams;
  std::unique_ptr<Streams> streams_;
};

}  // namespace console
