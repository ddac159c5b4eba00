#pragma once

#include <fstream>

#include "snapshots/restoring.h"
#include "snapshots/tar_writer.h"

namespace test {

/// A gateway whose snapshots are about to be copied into the file "exported".
class Exporting : public Saving {
 protected:
  Exporting() {
    cs::SaveOptions options;
    options.comment = "before the change";
    saved("weekly", options);
  }
  ~Exporting() override { expect_nothing_held(); }

  std::string exported() const { return root() + "/exported"; }

  static cs::Exported done(const cs::Result<cs::Exported>& result) {
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    return result ? *result : cs::Exported{};
  }

  static cs::Imported imported(const std::string& file, const cs::ImportOptions& options = {}) {
    const auto result = cs::import_from(file, options);
    EXPECT_TRUE(result) << shown(result ? cs::Error{} : result.error());
    EXPECT_TRUE(!result || result->warnings.empty());
    return result ? *result : cs::Imported{};
  }

  static cs::Error refused(const std::string& file, const cs::ImportOptions& options = {}) {
    const auto result = cs::import_from(file, options);
    return result ? cs::Error{} : result.error();
  }

  static cs::ImportOptions forced() {
    cs::ImportOptions options;
    options.overwrite = options.allow_newer = true;
    return options;
  }

  /// Changes the exported file by a statement.
  void forge(const std::string& sql) const { Database(exported()).run(sql); }

  /// Everything that an import keeps.
  static Rows rows_in(const std::string& file) {
    return Database(file).query(
        "select name, version, hex(keybase), hex(etc), etc is null, type, typeof(type), save_time, "
        "typeof(save_time), load_time, typeof(load_time) from Config order by name, version");
  }

  void drop_everything() const {
    for (const std::string& name : names_in(state_dir())) shell("rm " + state_dir() + "/" + name);
  }

  std::string gzip(const std::string& bytes) const {
    write_file(root() + "/plain", bytes);
    EXPECT_EQ(shell("cd " + root() + " && gzip -c plain > packed"), 0);
    return root() + "/packed";
  }

  /// Puts an archive with these members into the exported row "weekly", and drops its manifest.
  void put_archive(const std::vector<TarMember>& members) const {
    std::string tar;
    for (const TarMember& member : members) tar += tar_member(member);
    const std::string packed = gzip(tar + tar_end());
    ASSERT_EQ(shell("sqlite3 " + exported() +
                    " \"delete from manifest; update Config set keybase = readfile('" + packed + "')\""),
              0);
  }
};

}  // namespace test
