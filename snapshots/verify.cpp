// verify: whether a snapshot can be restored, and is what was saved.

#include "snapshots/boundary.h"
#include "snapshots/member_collector.h"
#include "snapshots/row_reader.h"

namespace ConfSave::snapshots {
namespace {

bool is_about_the_archive(const Error& error) {
  return error.code == Code::damaged || error.code == Code::unsafe;
}

void judge(Verdict& verdict, const Error& error) {
  const bool unsafe = error.code == Code::unsafe;
  if (verdict.state != Verdict::State::damaged) {
    verdict.state = unsafe ? Verdict::State::unsafe : Verdict::State::damaged;
  }
  verdict.problems.push_back(error.path + ": " + error.text);
}

Result<Verdict> check_row(const Id& id, const ReadOptions& options) {
  Result<OpenRow> row = open_row(id, Deadline(options.wait));
  if (!row) return row.error();
  Verdict verdict;
  verdict.snapshot = row->snapshot;
  if (const Error error = check_type(*row, "type", "integer"); error.code != Code::ok) {
    if (!is_about_the_archive(error)) return error;
    judge(verdict, error);
  }
  for (const Column& column : columns_of(row->snapshot.config.type)) {
    MemberCollector collector(column.base);
    const Error error = read_column(*row, column, collector.handler());
    if (error.code == Code::ok) continue;
    if (!is_about_the_archive(error)) return error;
    judge(verdict, error);
  }
  return verdict;
}

}  // namespace

Result<Verdict> verify(const Id& id, const ReadOptions& options) {
  return at_boundary([&] { return check_row(id, options); });
}

}  // namespace ConfSave::snapshots
