// Damaged storages are listed, read, compared and verified, and notes are written for what they list.

#include "archives.h"
#include "confsave/snapshots.h"
#include "pieces.h"

namespace {

using namespace ConfSave::snapshots;

const std::string& whole() {
  static const std::string bytes = [] {
    fuzz::make_live_configuration();
    fuzz::make_storage();
    return fuzz::read(fuzz::database());
  }();
  return bytes;
}

/// A failure says why.
void demand_reason(const Error& error) { fuzz::demand(error.code != Code::ok && !error.text.empty()); }

template <class Value>
void demand_answer(const Result<Value>& result) {
  if (!result) demand_reason(result.error());
}

void use(const Id& id) {
  demand_answer(members(id));
  demand_answer(compare(id, Live{}));
  demand_answer(compare({"weekly"}, id));
  const auto verdict = verify(id);
  demand_answer(verdict);
  if (verdict) fuzz::demand(verdict->state != Verdict::State::damaged || !verdict->problems.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Pieces pieces(data, size);
  const std::string storage = fuzz::damaged(whole(), pieces);
  fuzz::write(fuzz::database(), storage);
  const auto all = list();
  demand_answer(all);
  demand_answer(find({"weekly"}));
  use({"weekly"});
  use({"other"});
  for (std::size_t i = 0; all && i < all->size() && i < 4; ++i) {
    use({(*all)[i].config.name, (*all)[i].config.vers});
  }
  // What reads does not write.
  demand_answer(status());
  fuzz::demand(fuzz::read(fuzz::database()) == storage);

  // A whole row is deleted, and the other one stays what it was.
  const auto before = members({"weekly"});
  const Error removed = ConfSave::snapshots::remove({"other"});
  fuzz::demand(removed.code == Code::ok || !removed.text.empty());
  if (removed.code == Code::ok) fuzz::demand(!find({"other"}));
  if (before && removed.code == Code::ok) fuzz::demand(static_cast<bool>(members({"weekly"})));
  std::filesystem::remove(fuzz::database() + "-journal");
  return 0;
}
