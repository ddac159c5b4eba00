#include "snapshots/proof.h"

#include <algorithm>
#include <optional>

#include "snapshots/differences.h"
#include "snapshots/early_digests.h"
#include "snapshots/member_collector.h"
#include "snapshots/text.h"

namespace ConfSave::snapshots {
namespace {

constexpr int kAttempts = 5;

Error decode(const std::vector<char>& archive, Base base, ContentCheck& check,
             std::map<std::string, Member>& members) {
  MemorySource source({archive.data(), archive.size()});
  MemberCollector collector(base, OwnedBy::whom_it_was_saved, &check);
  Error error = read_archive(source, Limits{}, collector.handler());
  // A limit of archives: the member is not the matter.
  if (error.path.empty() && error.code == Code::unsafe) {
    error.code = Code::failed;
    error.text = "a snapshot of these files could not be restored: " + error.text;
  }
  if (error.path.empty()) error.path = directory_of(base);
  if (error.code != Code::ok) return error;
  for (const auto& [path, member] : collector.members()) members[path] = member;
  return {};
}

/// One packing after another, each compared with the files that it packed.
class Proving {
 public:
  Proving(conftype type, Phases& phases) : type_(type), phases_(phases) {}

  Result<Proven> run() {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      Proven proven;
      Error error = pack_once(proven);
      if (error.code == Code::ok) return proven;
      if (error.code != Code::changed_meanwhile && !has_changed_) return error;
      last_ = std::move(error);
    }
    // tar does not say that a file changed, and what it left then may be cut off.
    const bool unexplained = last_.code == Code::failed || last_.code == Code::damaged;
    if (!unexplained) return last_;
    return Error{Code::changed_meanwhile, 0, last_.path, "files change while they are packed"};
  }

 private:
  /// What went wrong, and in has_changed_ whether a change of the files since the last time explains it.
  Error pack_once(Proven& proven) {
    std::map<std::string, Member> packed;
    EarlyDigests early(type_);
    ContentCheck check(ContentCheck::Digests::computed, &early);
    Error error = pack(proven.packed, early, check, packed);
    std::vector<std::string> unreadable;
    Result<Tree> live = read_tree(type_, {}, &unreadable, &check);
    phases_.end("compare");
    has_changed_ = live && has_changed_since_last_time(*live);
    if (!live) return live.error();
    if (error.code == Code::ok) error = compare_with(packed, *live, proven.missing);
    if (error.code != Code::ok) {
      before_ = std::move(*live);
      return error;
    }
    for (const std::string& path : proven.missing) live->members.erase(path);
    proven.tree = std::move(*live);
    proven.missing.insert(proven.missing.end(), unreadable.begin(), unreadable.end());
    return {};
  }

  Error pack(Packed& archives, EarlyDigests& early, ContentCheck& check,
             std::map<std::string, Member>& members) {
    Result<Packed> packed = pack_configuration(type_);
    if (!packed) return packed.error();
    archives = std::move(*packed);
    phases_.end("pack");
    early.wait();
    phases_.end("digests");
    Error error = decode(archives.keybase, Base::configuration, check, members);
    if (error.code == Code::ok && type_ != conf_corlu) {
      error = decode(archives.etc, Base::failover, check, members);
    }
    early.forget();
    phases_.end("decode");
    return error;
  }

  bool has_changed_since_last_time(const Tree& live) const {
    if (!before_) return true;
    return before_->members.size() != live.members.size() ||
           !std::equal(live.members.begin(), live.members.end(), before_->members.begin(),
                       [](const auto& a, const auto& b) {
                         return a.first == b.first && is_same(a.second.stamp, b.second.stamp);
                       });
  }

  /// A file that is not in the archive is one that tar did not take if it was there, unchanged, before tar
  /// began; else it is new.
  Error compare_with(const std::map<std::string, Member>& packed, const Tree& live,
                     std::vector<std::string>& missing) const {
    for (const Difference& difference : differences(packed, live.members)) {
      const bool was_there =
          difference.change == Change::added && before_ && before_->members.count(difference.path) != 0 &&
          is_same(before_->members.at(difference.path).stamp, live.members.at(difference.path).stamp);
      if (!was_there) return explain(difference.path);
      missing.push_back(difference.path);
    }
    return {};
  }

  Error explain(const std::string& path) const {
    if (has_changed_) {
      return {Code::changed_meanwhile, 0, printable(path), "the file changes while it is packed"};
    }
    return {Code::failed, 0, printable(path), "tar does not pack the file as it is"};
  }

  conftype type_;
  Phases& phases_;
  std::optional<Tree> before_;  ///< the live files after the last packing
  bool has_changed_ = false;
  Error last_;
};

}  // namespace

Result<Proven> pack_and_prove(conftype type, Phases& phases) { return Proving(type, phases).run(); }

}  // namespace ConfSave::snapshots
