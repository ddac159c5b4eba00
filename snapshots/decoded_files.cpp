#include "snapshots/decoded_files.h"

namespace ConfSave::snapshots {

void DecodedFiles::begin() {
  current_.clear();
  fits_ = room_ > 0;
}

void DecodedFiles::add(std::string_view piece) {
  if (!fits_) return;
  fits_ = piece.size() <= left_ - current_.size();
  if (fits_) current_.append(piece);
}

void DecodedFiles::keep(Base base, int64 entry) {
  if (!fits_) return;
  left_ -= current_.size();
  current_.shrink_to_fit();
  files_[{base, entry}] = std::move(current_);
  begin();
}

const std::string* DecodedFiles::find(Base base, int64 entry) const {
  const auto found = files_.find({base, entry});
  return found != files_.end() ? &found->second : nullptr;
}

}  // namespace ConfSave::snapshots
