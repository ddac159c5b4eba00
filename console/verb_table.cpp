#include "verb_table.h"

#include <algorithm>

#include "values.h"
#include "verb_functions.h"

namespace console {
namespace {

void set_snapshot(const std::string& value, Options& options) { options.snapshot = parse_selection(value); }

constexpr Operand kName{"NAME", true, true, "a name, or NAME@VERSION", set_snapshot};
constexpr Operand kPattern{"NAME", true, true, "a name, or a pattern with * ? [ ]; or NAME@VERSION",
                           set_snapshot};
constexpr Operand kMaybePattern{"NAME", false, true, kPattern.effect, set_snapshot};
constexpr Operand kOther{
    "OTHER", false, true, "the newer snapshot; default: the live configuration",
    [](const std::string& value, Options& options) { options.other = parse_one(value); }};
constexpr Operand kText{"TEXT", true, false, "the comment; an empty one removes it",
                        [](const std::string& value, Options& options) { options.text = value; }};

/// With --all the only operand is the file. Which one the first is, the second shows.
constexpr Operand kExported{"NAME", false, true, "a name, or a pattern; or NAME@VERSION; none with --all",
                            [](const std::string& value, Options& options) { options.exchanged = value; }};
constexpr Operand kFile{"FILE", false, false, "the new file; - for standard output",
                        [](const std::string& value, Options& options) {
                          options.snapshot = parse_one(options.exchanged);
                          options.exchanged = value;
                        }};
constexpr Operand kImported{"FILE", true, false,
                            "an exported file, or any storage.db; - for standard input",
                            [](const std::string& value, Options& options) { options.exchanged = value; }};
constexpr Operand kInFile{
    "NAME", false, false, "only this one; a name or a pattern, or NAME@VERSION",
    [](const std::string& value, Options& options) { options.snapshot = parse_one(value); }};

constexpr Verb kVerbs[] = {
    {"list", nullptr, nullptr, kPlain, "--upto --sort --all --long --json ", "", "list the snapshots",
     list},
    {"show", &kPattern, nullptr, kPlain, "--version --file --json ", "", "list the files of a snapshot",
     show},
    {"save", &kName, nullptr, kInterruptible | kChanging,
     "--type --version --comment --if-changed --force --wait --json ", "",
     "store the configuration as it is now", save},
    {"diff", &kPattern, &kOther, kPlain, "--version --patch --json ", "",
     "list what changed since a snapshot", diff},
    {"load", &kPattern, nullptr, kInterruptible | kSettling,
     "--version --target --exact --dry-run --confirm-within --check --no-keep --yes --force --wait "
     "--json ",
     "", "restore a snapshot", load},
    {"confirm", nullptr, nullptr, kInterruptible | kSettling, "--wait ", "", "keep a pending restore",
     confirm},
    {"revert", nullptr, nullptr, kInterruptible | kSettling, "--if-due --when-due --wait ", "",
     "take a pending restore back", revert},
    {"recover", nullptr, nullptr, kInterruptible | kSettling, "--wait ", "",
     "finish or undo a restore that was interrupted", recover},
    {"verify", &kMaybePattern, nullptr, kPlain, "--version --all --json ", "",
     "check whether snapshots can be restored", verify},
    {"status", nullptr, nullptr, kSettling, "--json ", "", "say what needs attention", show_status},
    {"note", &kName, &kText, kChanging, "--version --wait ", "", "set the comment of a snapshot", note},
    {"pin", &kName, nullptr, kChanging, "--version --wait ", "", "protect a snapshot from being deleted",
     pin},
    {"unpin", &kName, nullptr, kChanging, "--version --wait ", "", "end the protection", unpin},
    {"delete", &kName, nullptr, kChanging, "--version --force --wait ", "", "delete a snapshot", remove},
    {"prune", nullptr, nullptr, kInterruptible | kChanging,
     "--keep --older-than --match --dry-run --wait --json ", "--keep ",
     "delete old autosaves, or what matches", prune},
    {"autosave", nullptr, nullptr, kInterruptible | kChanging, "--max --type --if-changed --wait ",
     "--max ", "store the configuration under a name made from the time", autosave},
    {"export", &kExported, &kFile, kInterruptible, "--all --force --json ", "",
     "copy snapshots into a file", export_snapshots},
    {"import", &kImported, &kInFile, kInterruptible | kChanging, "--as --force --wait --json ", "",
     "store the snapshots of a file", import_snapshots},
    {"check-old", nullptr, nullptr, kPlain, "--days ", "", "say how old the newest autosave is", check_old},
    {"shell", nullptr, nullptr, kSettling, "", "", "read verbs and run them", shell},
    {"version", nullptr, nullptr, kSettling, "", "", "show the versions of this program and of the gateway",
     version},
};

constexpr Option kOptions[] = {
    {"--type", "TYPE", "full part corlu ", "full, part or corlu; default: full",
     [](const std::string& value, Options& options) { options.type = parse_type(value); }},
    {"--version", "VERSION", "", "the version of the snapshot, as 4.5.4, or none",
     [](const std::string& value, Options& options) { options.version = parse_version(value); }},
    {"--upto", "VERSION", "", "only snapshots up to this version",
     [](const std::string& value, Options& options) { options.upto = parse_version(value); }},
    {"--sort", "KEY", "name saved loaded version ", "sort by name, saved, loaded or version",
     [](const std::string& value, Options& options) { options.sort = parse_sort(value); }},
    {"--file", "PATH", "", "print the content of this file of the snapshot",
     [](const std::string& value, Options& options) { options.file = parse_member(value); }},
    {"--target", "DIR", "", "restore everything into this directory",
     [](const std::string& value, Options& options) { options.target = parse_directory(value); }},
    {"--exact", "", "", "remove the files that the snapshot does not have, too",
     [](const std::string&, Options& options) { options.exact = true; }},
    {"--dry-run", "", "", "print what would change, and change nothing",
     [](const std::string&, Options& options) { options.dry_run = true; }},
    {"--confirm-within", "TIME", "90s 10m 2h ",
     "take the restore back after this time, as 10m, unless it is confirmed",
     [](const std::string& value, Options& options) { options.confirm_within = parse_time(value); }},
    {"--if-due", "", "", "only if its time is up",
     [](const std::string&, Options& options) { options.if_due = true; }},
    {"--when-due", "", "", "wait until its time is up",
     [](const std::string&, Options& options) { options.when_due = true; }},
    {"--check", "COMMAND", "", "run this command afterwards, and undo the restore if it fails",
     [](const std::string& value, Options& options) { options.check = parse_command(value); }},
    {"--no-keep", "", "", "do not store the present configuration first",
     [](const std::string&, Options& options) { options.keep = false; }},
    {"--as", "NEWNAME", "", "store the snapshot under this name",
     [](const std::string& value, Options& options) { options.as = value; }},
    {"--days", "N", "", "an older autosave is too old; default: 31",
     [](const std::string& value, Options& options) { options.days = parse_number(value, 1); }},
    {"--keep", "N", "", "keep the newest N",
     [](const std::string& value, Options& options) { options.keep_newest = parse_number(value, 1); }},
    {"--older-than", "DAYS", "", "delete only what is older",
     [](const std::string& value, Options& options) { options.older_than = parse_number(value, 1); }},
    {"--match", "PATTERN", "", "delete snapshots with such a name, instead of autosaves",
     [](const std::string& value, Options& options) { options.match = value; }},
    {"--max", "N", "", "keep at most N autosaves",
     [](const std::string& value, Options& options) { options.max = parse_number(value, 1); }},
    {"--comment", "TEXT", "", "a comment on the snapshot",
     [](const std::string& value, Options& options) { options.comment = value; }},
    {"--if-changed", "", "", "store nothing if nothing has changed since the newest one",
     [](const std::string&, Options& options) { options.if_changed = true; }},
    {"--patch", "", "", "print the changed lines of text files, too",
     [](const std::string&, Options& options) { options.patch = true; }},
    {"--wait", "SECONDS", "", "how long to wait for other programs; default: 30",
     [](const std::string& value, Options& options) { options.wait = parse_number(value, 0); }},
    {"--force", "", "", "overwrite, delete or restore what is otherwise refused",
     [](const std::string&, Options& options) { options.force = true; }},
    {"--yes", "", "", "ask no question", [](const std::string&, Options& options) { options.yes = true; }},
    {"--all", "", "", "all snapshots, the packet filter's own one included",
     [](const std::string&, Options& options) { options.all = true; }},
    {"--long", "", "", "print a table", [](const std::string&, Options& options) { options.table = true; }},
    {"--json", "", "", "print JSON", [](const std::string&, Options& options) { options.json = true; }},
};

template <class Entry>
const Entry* find_in(Table<Entry> table, const std::string& name) {
  const auto* found =
      std::find_if(table.begin(), table.end(), [&](const Entry& entry) { return entry.name == name; });
  return found != table.end() ? found : nullptr;
}

}  // namespace

Table<Verb> verbs() { return {std::begin(kVerbs), std::end(kVerbs)}; }

Table<Option> option_table() { return {std::begin(kOptions), std::end(kOptions)}; }

const Verb* find_verb(const std::string& name) { return find_in(verbs(), name); }

const Option* find_option(const std::string& name) { return find_in(option_table(), name); }

bool lists(const char* list, const std::string& word) {
  return (" " + std::string(list)).find(" " + word + " ") != std::string::npos;
}

std::string contradiction(const Verb& verb, const Options& options) {
  if (options.version && options.snapshot.version) return "NAME@VERSION and --version cannot be combined";
  if (options.json && options.table) return "--json and --long cannot be combined";
  if (options.json && options.patch) return "--json and --patch cannot be combined";
  if (options.json && !options.file.empty()) return "--json and --file cannot be combined";
  if (verb.run == export_snapshots) {
    const bool has_name = !options.snapshot.name.empty();
    if (options.exchanged.empty() || options.all == has_name)
      return "give NAME and FILE, or --all and FILE";
    if (options.json && options.exchanged == "-") return "--json and a FILE of - cannot be combined";
  }
  if (options.confirm_within != 0 && !options.target.empty()) {
    return "--confirm-within and --target cannot be combined";
  }
  if (options.if_due && options.when_due) return "--if-due and --when-due cannot be combined";
  if (verb.run != verify) return "";
  if (options.all && (!options.snapshot.name.empty() || options.snapshot.version || options.version)) {
    return "--all and a snapshot cannot be combined";
  }
  return options.all || !options.snapshot.name.empty() ? "" : "NAME or --all is required";
}

}  // namespace console
