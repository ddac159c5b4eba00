#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ConfSave::snapshots {

using ExtendedAttributes = std::vector<std::pair<std::string, std::string>>;

/// What goes over to a file that takes the place of `file`, its access list if `with_access_list`. Named
/// users and groups get no more than they have now: what the mask takes from them is taken from the copy.
/// No value with errno.
std::optional<ExtendedAttributes> extended_attributes(int file, bool with_access_list);

/// False with errno.
bool set_extended_attributes(int file, const ExtendedAttributes& attributes);

/// The access list of a directory, as the kernel has it; empty without one.
std::string access_list(int directory);

/// Sets the access list of a directory unless it is empty. False with errno.
bool set_access_list(int directory, const std::string& list);

/// The list without what its mask takes from named users and groups.
std::string limited_by_mask(std::string list);

/// Removes the access lists of a directory. False with errno.
bool remove_access_lists(int directory);

}  // namespace ConfSave::snapshots
