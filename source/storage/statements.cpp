#include "storage/statements.h"

namespace ConfSave::sql {
namespace {

/// The packet filter keeps its own configuration under this name. // Quirk Q22
constexpr const char* kNotCorlu = " name!='corlu-config'";

std::string name_and_version(const std::string& name, int64 version) {
  return " name='" + name + "' and version=" + std::to_string(version);
}

}  // namespace

std::string create_table() {
  return "create table 'Config' (id integer primary key autoincrement, "
         "name varchar(80) not null, version integer not null, keybase blob, etc blob, "
         "type integer, save_time timestamp, load_time timestamp, unique (name, version) )";
}

std::string table_exists_error() { return "table 'Config' already exists"; }

std::string count_rows(const std::string& name, int64 version) {
  return "select count(*) from 'Config' where" + name_and_version(name, version);
}

std::string delete_row(const std::string& name, int64 version) {
  return "delete from 'Config' where" + name_and_version(name, version);
}

std::string insert_row(const std::string& name, int64 version, int64 save_time, conftype type) {
  return "insert into 'Config' (name,keybase,etc,version, save_time, type) values ('" + name + "',?,?," +
         std::to_string(version) + "," + std::to_string(save_time) + "," +
         std::to_string(static_cast<std::int32_t>(type)) + ")";
}

std::string select_row(const std::string& name, int64 version, bool skip_corlu) {
  std::string text = "select keybase, etc, type, id from 'Config' where";
  if (skip_corlu) text.append(kNotCorlu).append(" and");
  return text + name_and_version(name, version);
}

std::string stamp_load_time(int64 id, int64 load_time) {
  return "update 'Config' set load_time=" + std::to_string(load_time) + " where id=" + std::to_string(id);
}

std::string list_rows(int64 version, const std::string& order_by, bool skip_corlu) {
  std::string text = "select name, version, type, save_time, load_time from 'Config'";
  if (version != 0 || skip_corlu) text += " where";
  if (skip_corlu) text += kNotCorlu;
  if (version != 0 && skip_corlu) text += " and";
  if (version != 0) text += " version<=" + std::to_string(version);
  if (!order_by.empty()) text += " order by " + order_by;
  return text;
}

std::string find_rows(const std::string& pattern, int64 version, bool skip_corlu) {
  std::string text = "select id, name, type, version, save_time, load_time from 'Config' where";
  if (skip_corlu) text.append(kNotCorlu).append(" and");
  text += " name glob '" + pattern + "'";
  if (version != 0) text += " and version=" + std::to_string(version);
  return text;
}

}  // namespace ConfSave::sql
