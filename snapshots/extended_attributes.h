#pragma once

namespace ConfSave::snapshots {

/// Copies the extended attributes of one file to another, access lists included. Named users and groups get
/// no more than they have now: what the mask takes from them is taken from the copy. False with errno.
bool copy_extended_attributes(int from, int to);

/// Removes the access lists of a directory. False with errno.
bool remove_access_lists(int directory);

}  // namespace ConfSave::snapshots
