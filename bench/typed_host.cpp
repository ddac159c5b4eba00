// The host of the typed library that is measured: performs one operation.
//
//   bench-typed save NAME | save-if-changed NAME | open | show NAME | diff NAME | verify NAME | decode NAME
//   bench-typed plan NAME | restore NAME
//
// "decode" only unpacks both archives, and only reads the files of the live configuration. With
// BENCH_FIGURES=FILE it also writes, as JSON: the seconds of the operation, the most memory that the
// process had, in KiB, and the bytes of the members.

#include <confsave/snapshots.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "peak_memory.h"
#include "snapshots/gunzip.h"
#include "snapshots/libarchive.h"
#include "snapshots/storage_reader.h"

namespace {

using namespace ConfSave::snapshots;
using ConfSave::int64;
using Clock = std::chrono::steady_clock;

template <class Value>
Value expect(Result<Value> result) {
  if (result) return std::move(*result);
  std::cerr << "bench-typed: " << result.error().path << ": " << result.error().text << '\n';
  std::exit(1);
}

int64 size_of(const Members& found) {
  int64 size = 0;
  for (const Member& member : found) size += member.size;
  return size;
}

void decode(const Id& id) {
  Query query;
  query.pattern = id.name;
  const Snapshot snapshot = expect(find(query));
  auto reader = expect(StorageReader::open(std::chrono::milliseconds(1000)));
  for (const char* column : {"keybase", "etc"}) {
    const auto packed = expect(BlobSource::open(reader->database(), column, snapshot.id));
    Gunzip unpacked(*packed, Limits{});
    while (!expect(unpacked.next()).empty()) {
    }
  }
  std::vector<char> buffer(128 << 10);
  const char* files = std::getenv("BENCH_FILES");
  std::ifstream names(files != nullptr ? files : "");
  for (std::string name; std::getline(names, name);) {
    std::ifstream file(name, std::ios::binary);
    file.rdbuf()->pubsetbuf(nullptr, 0);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) {
    }
  }
}

void save_now(const Id& id, bool if_changed) {
  SaveOptions options;
  options.overwrite = true;
  options.if_changed = if_changed;
  expect(save(id, options));
}

void restore_now(const Id& id) {
  RestoreOptions options;
  options.keep = false;
  expect(restore(id, options));
}

const std::map<std::string, void (*)(const Id&)> kVerbs{
    {"save", [](const Id& id) { save_now(id, false); }},
    {"save-if-changed", [](const Id& id) { save_now(id, true); }},
    {"open", [](const Id&) { expect(list()); }},
    {"show", [](const Id& id) { expect(members(id)); }},
    {"diff", [](const Id& id) { expect(compare(id, Live{})); }},
    {"verify", [](const Id& id) { expect(verify(id)); }},
    {"decode", decode},
    {"plan", [](const Id& id) { expect(plan(id)); }},
    {"restore", restore_now},
};

bool perform(const std::string& verb, const Id& id) {
  const auto found = kVerbs.find(verb);
  if (found != kVerbs.end()) found->second(id);
  return found != kVerbs.end();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  const Id id{argc > 2 ? argv[2] : "", ConfSave::CURRENT_VERSION};
  const char* figures = std::getenv("BENCH_FIGURES");
  // Loading libraries belongs to the start of a host. It would be half of a small comparison.
  if (figures != nullptr && verb != "open") expect(libarchive());
  const auto start = Clock::now();
  if (!perform(verb, id)) {
    std::cerr << "bench-typed: no verb is called '" << verb << "'\n";
    return 2;
  }
  const double all = std::chrono::duration<double>(Clock::now() - start).count();
  const long peak = peak_memory();
  if (figures != nullptr) {
    std::ofstream(figures) << "{\"all\": " << all << ", \"peak\": " << peak
                           << ", \"bytes\": " << (verb == "verify" ? size_of(expect(members(id))) : 0)
                           << "}\n";
  }
  return 0;
}
