// Damaged notes hide no snapshot, and are written to only if they are whole.

#include "archives.h"
#include "confsave/snapshots.h"
#include "pieces.h"
#include "snapshots/notes.h"

namespace {

using namespace ConfSave::snapshots;

std::string notes_file() { return fuzz::root() + "/state/notes.db"; }

const std::string& whole() {
  static const std::string bytes = [] {
    fuzz::make_live_configuration();
    fuzz::make_storage();
    fuzz::Writer(notes_file()).run("pragma page_size=512");
    const auto weekly = find({"weekly"});
    auto live = read_tree(ConfSave::conf_full);
    auto file = Notes::open_to_write(std::chrono::milliseconds(1000));
    fuzz::demand(weekly && live && file);
    const Manifest manifest{std::move(*live), {"/missing"}, {{"/parent", {0755, 0, 0}}}};
    fuzz::demand(file->replace_manifest(*weekly, {"before", "me", false}, manifest).code == Code::ok);
    fuzz::demand(pin({"other"}, true).code == Code::ok);
    return fuzz::read(notes_file());
  }();
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Pieces pieces(data, size);
  fuzz::write(notes_file(), fuzz::damaged(whole(), pieces));
  const auto all = list();
  fuzz::demand(all && all->size() == 2);
  fuzz::demand(members({"weekly"}) && compare({"weekly"}, Live{}) && compare({"weekly"}, Id{"other"}));
  const auto verdict = verify({"weekly"});
  fuzz::demand(verdict && verdict->state != Verdict::State::unsafe);

  const Error written = note({"weekly"}, "after");
  fuzz::demand(written.code == Code::ok || !written.text.empty());
  const auto found = find({"weekly"});
  fuzz::demand(found && (written.code != Code::ok || found->comment == "after"));
  std::filesystem::remove(notes_file() + "-journal");
  return 0;
}
