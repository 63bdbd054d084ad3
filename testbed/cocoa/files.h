// Between paths and the Carbon File Manager's records, for the host side.
//
// A reference (FSRef) stands for an existing item, a spec (FSSpec) for a name in an
// existing folder, whether or not the item exists. Both are numbers into tables of this library,
// which live as long as the process; a reference goes on meaning the same path. Paths are UTF-8
// and are answered absolute, without a trailing slash and with the links in the parent folders
// resolved. Threads: any. Errors: false or nothing, never an exception.
#pragma once

#include "testbed/cocoa/carbon.h"

#include <optional>
#include <string>

// The item must exist (a dangling link does).
bool files_ref_from_path(const std::string& path, FSRef& item);

// Nothing for memory that is no reference. The item may have vanished since.
std::optional<std::string> files_path_from_ref(const FSRef& item);

// The item's folder must exist. Names of over 31 bytes and names that Mac Roman cannot express get
// a short form, which leads back to the same path.
bool files_spec_from_path(const std::string& path, FSSpec& item);

// Nothing for a folder that is not known. The item need not exist.
std::optional<std::string> files_path_from_spec(const FSSpec& item);

// The last component of a path as the plug-in is given it; false beyond 255 UTF-16 units or when
// it is not UTF-8.
bool files_name_from_path(const std::string& path, HFSUniStr255& name);

// A name in a folder. Nothing for an invalid folder, and for a name that is empty, has a slash or a
// NUL in it, or is no Unicode.
std::optional<std::string> files_path_from_name(const FSRef& folder, const HFSUniStr255& name);

// Makes an existing folder the root of a volume, named like the folder; "/" always is one.
bool files_declare_volume(const std::string& path);
