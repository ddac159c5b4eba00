#pragma once

#include <string>
#include <vector>

#include "snapshots/deadline.h"
#include "snapshots/exchange.h"

namespace ConfSave::snapshots {

/// Recovers what an earlier process has left, if anything, so that the live files are all old or all new.
/// The caller holds the lock of the floor.
Error recover_first(const Deadline& deadline);

/// The same, with the clean-up: the journal is free for another restore.
Error recover_wholly(const Deadline& deadline);

/// Code::pending or Code::needs_attention while a restore is not finished, except one that is at work now.
/// Changes nothing.
Error check_finished(const Deadline& deadline);

/// Puts back the old files of all steps, durably, and cleans up. What fails is Aftermath::mixed, and stays
/// in the journal.
/// `unfinished` is why the journal is not free then.
Error take_back(Journal& journal, const Record& record, std::vector<Site>& sites, Foreign foreign,
                std::vector<std::string>& warnings, Error& unfinished);

/// Deletes the staging directories and the record. What fails is a warning, too, and the record stays, so
/// that the next recovery tries again.
Error clean_up(Journal& journal, Exchange& exchange, std::vector<std::string>& warnings);

/// The process that waits for the check of a pending restore. Its death frees it, whatever it has started
/// lives on.
class PendingOwner {
 public:
  /// Code::pending if another process, or another thread, is it.
  static Result<PendingOwner> become(const Snapshot& snapshot);

  /// Whether there is one. Takes no lock.
  static bool is_alive();

  PendingOwner(PendingOwner&& other) noexcept = default;
  PendingOwner& operator=(PendingOwner&& other) = delete;
  /// Also frees it from a process that the check has forked and that has inherited it.
  ~PendingOwner();

 private:
  explicit PendingOwner(Descriptor file) : file_(std::move(file)) {}

  Descriptor file_;
};

}  // namespace ConfSave::snapshots
