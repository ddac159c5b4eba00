#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>

namespace console {

/// While it lives, stands between the library and the standard streams: passes on and records what is
/// printed and typed.
///
/// The question for the current configuration's name is repeated until the answer is a valid name. With
/// `was_saved` it protects a restore as well: at the end of input, and when the library reports a save that
/// did not happen, it throws ConfSave::XCancel into the library before anything is overwritten.
class Conversation {
 public:
  /// `was_saved(name, since)`: whether a snapshot of that name was stored since then.
  using Proof = std::function<bool(const std::string& name, std::time_t since)>;

  explicit Conversation(Proof was_saved = nullptr);
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;
  ~Conversation();

  /// What the library printed so far.
  const std::string& output() const;
  const std::string& errors() const;

  bool printed(const std::string& text) const;

  /// Whether the library reported a save that did not happen.
  bool disproved() const;

 private:
  struct Streams;
  std::unique_ptr<Streams> streams_;
};

}  // namespace console
