#include "confsave.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "archive/pack.h"
#include "kelmor/paths.h"
#include "log.h"
#include "throw.h"

namespace ConfSave {
namespace {

const ClUnilogFname kCreate{
    "void ConfSave::Archive::Create(const std::vector<char>&, const std::vector<char>&)", "Create"};

constexpr const char* kEtcDirectory = "/mnt/main/etc/";
constexpr const char* kEtcFiles = " failover.ini failover.ini.crg failoverd-config.crg";

/// What describes the network, and is left out of a partial configuration.
constexpr const char* kNetworkFiles =
    " gw* peer* outnet* remote.txt quelvian.re corluadr* linkmap.dat station user/key_set hub/out hub/old "
    "hub/key";

/// Every entry is preceded by a blank.
std::string user_file(int id) {
  return " user/" + toolsunix::FilenameConvertor::Instance().GetShortFilename(toolsunix::FileId{id});
}

std::string keybase_files(conftype type, const std::string& dir) {
  std::string list = user_file(1) + user_file(4) + "*";
  for (const int id : {9, 10, 11, 12, 17, 18, 19, 20}) list += user_file(id);
  // File 29 belongs to the database too, and is deleted before a restore, but never packed. // Quirk Q26
  if (IsConfigDbExist(dir.c_str())) list += user_file(30) + user_file(31);
  if (type == conf_corlu) return list + " user/upgrade.conf user/corlucfg-config.crg";
  list += " user/kwtp.conf user/upgrade.conf user/corlucfg-config.crg user/kwtpd-config.crg";
  if (type == conf_full) list += kNetworkFiles;
  return list;
}

void pack_into(TempFile& file, const std::string& dir, const std::string& files) {
  file.create();
  pack(file.name(), dir, files);
  file.rewind();
}

void write_into(TempFile& file, const std::vector<char>& bytes) {
  file.create();
  // A short write sets no error of its own, and must not be told with one of earlier.
  errno = 0;  // Quirk Q33
  if (write(file.fd(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    const int error = errno;
    if (KovrLogHelper record{1, kCreate, kArchiveSource, ""}) {
      record << file.name() << ": failed to write to temporary file: " << std::strerror(error);
    }
    throw_text<XTOOStatus>(6, std::strerror(error));
  }
  file.rewind();
}

}  // namespace

Archive::Archive(conftype type, const std::string& dir) : arc_dir(dir), arc_type(type) {}

Archive::~Archive() = default;

void Archive::Create() {
  const std::string files = keybase_files(arc_type, arc_dir);
  if (arc_type != conf_corlu) pack_into(etc_file, kEtcDirectory, kEtcFiles);
  pack_into(keybase_file, arc_dir, files);
}

void Archive::Create(const std::vector<char>& etc, const std::vector<char>& keybase) {
  write_into(etc_file, etc);
  write_into(keybase_file, keybase);
}

void Archive::Fetch(std::vector<char>& etc, std::vector<char>& keybase) const {
  TempFile_to_BinObj(etc_file, etc);
  TempFile_to_BinObj(keybase_file, keybase);
}

// What fails leaves the rest as it is then. // Quirk Q32
void Archive::Extract(const char* target) const {
  const std::string dest = target != nullptr ? target : arc_dir;
  RemoveConfigDb(dest.c_str());
  if (arc_type != conf_corlu && !etc_file.name().empty()) {
    // An explicit target takes both archives. // Quirk Q27
    unpack(etc_file.name(), target != nullptr ? dest : kEtcDirectory);
  }
  if (!keybase_file.name().empty()) unpack(keybase_file.name(), dest);
}

}  // namespace ConfSave
