#pragma once

#include <string>

namespace ConfSave::snapshots {

/// Copies the extended attributes of one file to another, its access list if `with_access_list`. Named
/// users and groups get no more than they have now: what the mask takes from them is taken from the copy.
/// False with errno.
bool copy_extended_attributes(int from, int to, bool with_access_list);

/// The access list of a directory, as the kernel has it; empty without one.
std::string access_list(int directory);

/// Sets the access list of a directory unless it is empty. False with errno.
bool set_access_list(int directory, const std::string& list);

/// The list without what its mask takes from named users and groups.
std::string limited_by_mask(std::string list);

/// Removes the access lists of a directory. False with errno.
bool remove_access_lists(int directory);

}  // namespace ConfSave::snapshots
