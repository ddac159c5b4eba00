#include "snapshots/wanted.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "places.h"
#include "snapshots/member_collector.h"

namespace ConfSave::snapshots {
namespace {

/// Gathers what one archive restores.
class Collecting {
 public:
  Collecting(Base base, std::string destination, ContentCheck& check, DecodedFiles& decoded)
      : base_(base),
        prefix_(directory_of(base).size()),
        destination_(std::move(destination)),
        check_(check),
        decoded_(decoded),
        reader_(
            base, OwnedBy::whom_a_restore_sets, [this](Member member) { return add(std::move(member)); },
            &check) {
    check.enter(destination_);
  }

  EntryHandler handler() {
    EntryHandler handler = reader_.handler();
    handler.begin = [this, begin = std::move(handler.begin)](const Entry& entry) {
      decoded_.begin();
      return begin(entry);
    };
    handler.content = [this, content = std::move(handler.content)](std::string_view piece) {
      decoded_.add(piece);
      return content(piece);
    };
    return handler;
  }

  void take(std::map<std::string, Wanted>& wanted) {
    for (auto& [path, found] : found_) {
      if (path.front() == '.' || is_of_packet_filter(path)) continue;
      found.member.path = destination_ + path;
      wanted[found.member.path] = std::move(found);
    }
  }

 private:
  Error add(Member member) {
    const std::string path = member.path.substr(prefix_);
    if (member.kind == Kind::file && !check_.is_equal()) decoded_.keep(base_, count_);
    Wanted wanted{std::move(member), base_, count_++};
    if (wanted.member.kind == Kind::hardlink) {
      // tar gives a link what its file has. The reader has seen to it that the file comes first.
      const bool secret = wanted.member.secret;
      wanted = found_.at(wanted.member.target.substr(prefix_));
      wanted.member.secret = wanted.member.secret || secret;
    }
    found_[path] = std::move(wanted);
    return {};
  }

  Base base_;
  std::size_t prefix_;
  std::string destination_;
  ContentCheck& check_;
  DecodedFiles& decoded_;
  MemberReader reader_;
  std::unordered_map<std::string, Wanted> found_;  ///< by relative path
  int64 count_ = 0;
};

std::string with_slash(std::string directory) {
  if (directory.empty() || directory.back() != '/') directory += '/';
  return directory;
}

}  // namespace

Destinations Destinations::of(const std::string& target) {
  if (target.empty()) return {config_directory(), kFailoverDirectory};
  std::error_code none;
  const std::filesystem::path path = std::filesystem::absolute(target, none);
  const std::string directory = with_slash(none ? target : path.string());
  return {directory, directory};
}

bool is_of_packet_filter(const std::string& path) {
  constexpr std::string_view name = "corlu.serv";
  for (std::size_t start = path.find(name); start != std::string::npos;
       start = path.find(name, start + 1)) {
    const std::size_t end = start + name.size();
    const bool is_whole =
        (start == 0 || path[start - 1] == '/') && (end == path.size() || path[end] == '/');
    if (is_whole) return true;
  }
  return false;
}

mode_t mode_for(const Member& member, std::uint32_t owner, std::uint32_t group) {
  mode_t mode = member.mode;
  if (group != member.gid || owner != member.uid) mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
  if (group != member.gid) mode &= ~static_cast<mode_t>(S_IRWXG) | (member.mode & S_IRWXO) << 3U;
  return mode;
}

bool may_give_to(std::uint32_t group) {
  if (geteuid() == 0 || group == getegid()) return true;
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, getgroups(0, nullptr))));
  const int count = getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<std::size_t>(std::max(0, count)));
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

Result<std::map<std::string, Wanted>> read_wanted(OpenRow& row, const Destinations& destinations,
                                                  ContentCheck& check, DecodedFiles& decoded,
                                                  const PackedProgress& progress) {
  decoded.clear();
  std::map<std::string, Wanted> wanted;
  std::vector<Column> columns = columns_of(row.snapshot.config.type);
  // Where both go into one directory, the configuration's files win.
  std::reverse(columns.begin(), columns.end());
  for (const Column& column : columns) {
    Collecting collecting(column.base, destinations.of(column.base), check, decoded);
    Error error = read_column(row, column, collecting.handler(), progress);
    if (error.code != Code::ok) return error;
    collecting.take(wanted);
  }
  return wanted;
}

}  // namespace ConfSave::snapshots
