#include "snapshots/early_notes.h"

#include <algorithm>
#include <iterator>

namespace ConfSave::snapshots {
namespace {

/// While the storage is locked, for what can be done afterwards as well: half as long as a listing waits.
constexpr std::chrono::milliseconds kShortWait(500);

bool keeps_pin(const NewNote& note) { return note.keeps_pin; }

/// A kill may lose the author, which nobody misses, for one transaction less. In a foreign table without
/// ids as keys a new row has the id of the one that it replaces, whose note has to stay: here a kill parts
/// them.
bool is_for_afterwards(const NewNote& note) {
  const bool is_plain = note.note.comment.empty() && !note.note.pinned;
  return is_plain || note.snapshot.id == note.replaced;
}

}  // namespace

void EarlyNotes::open() {
  Result<Notes> notes = Notes::open_to_write(deadline_.left());
  if (notes) {
    notes_.emplace(std::move(*notes));
  } else {
    error_ = notes.error();
  }
}

Error EarlyNotes::write(const std::vector<NewNote>& notes) {
  std::vector<NewNote> early;
  std::remove_copy_if(notes.begin(), notes.end(), std::back_inserter(early), is_for_afterwards);
  if (early.empty()) return {};
  const bool is_needed = std::any_of(early.begin(), early.end(), keeps_pin);
  if (!notes_ && error_.code == Code::ok) open();
  Error error = error_;
  if (notes_) {
    notes_->limit_wait(is_needed ? deadline_.left() : std::min(deadline_.left(), kShortWait));
    error = notes_->write(early);
  }
  if (error.code != Code::ok) {
    error.text = "the pin cannot be kept: " + error.text;
    return is_needed ? error : Error{};
  }
  for (const NewNote& note : early) written_.push_back(note.snapshot.id);
  return {};
}

bool EarlyNotes::has(const Snapshot& row) const {
  return std::find(written_.begin(), written_.end(), row.id) != written_.end();
}

void EarlyNotes::take_back(const Error& why) {
  if (why.aftermath == Aftermath::perhaps_done) return;
  // What fails here belongs to no row.
  for (const int64 id : written_) notes_->forget(id);
  written_.clear();
}

Result<Notes*> EarlyNotes::afterwards() {
  if (notes_) {
    notes_->limit_wait(deadline_.left_afterwards());
    return &*notes_;
  }
  Result<Notes> notes = Notes::open_to_write(deadline_.left_afterwards());
  if (!notes) return notes.error();
  notes_.emplace(std::move(*notes));
  return &*notes_;
}

}  // namespace ConfSave::snapshots
