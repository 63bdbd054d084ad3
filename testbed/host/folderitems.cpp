// FolderItems: paths, and the Carbon references by which plug-ins see them.
#include "operations.h"

#include "testbed/cocoa/files.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace host {

namespace {

FolderItem& itemOf(ObjectHandle* handle, const char* who) {
  auto* item = dynamic_cast<FolderItem*>(liveCell(handle, Form::object, who).payload);
  if (!item) die(std::string(who) + ": " + label(handle) + " is no FolderItem");
  return *item;
}

ObjectHandle* itemFor(const std::optional<std::string>& path) {
  return path ? handleOf(folderItem(*path)) : nullptr;
}

} // namespace

Object folderItem(const std::string& path) {
  if (path.empty() || path[0] != '/')
    throw Error("a FolderItem needs an absolute path, not \"" + path + "\"");
  auto item = std::make_unique<FolderItem>();
  item->path = path;
  while (item->path.size() > 1 && item->path.back() == '/') item->path.pop_back();
  return makeObject(builtInClass(Kind::folderItem), std::move(item));
}

std::string path(const Object& item) { return needPayload<FolderItem>(item, "FolderItem").path; }

void setLeafName(const Object& item, std::optional<std::u16string> name) {
  if (name && name->size() > 255) throw Error("a leaf name has at most 255 units");
  needPayload<FolderItem>(item, "FolderItem").leafName = std::move(name);
}

namespace operations {

bool refFromFolderItem(ObjectHandle* handle, FSRef* ref, HFSUniStr255* name) {
  if (!handle || !ref) return false;
  FolderItem& item = itemOf(handle, "REALFSRefFromFolderItem");
  if (!name) return files_ref_from_path(item.path, *ref);
  std::string parent = std::filesystem::path(item.path).parent_path();
  if (!files_ref_from_path(parent, *ref)) return false;
  if (!item.leafName) return files_name_from_path(item.path, *name);
  name->length = uint16_t(item.leafName->size());
  memcpy(name->unicode, item.leafName->data(), item.leafName->size() * 2);
  return true;
}

bool specFromFolderItem(FSSpec* spec, ObjectHandle* handle) {
  if (!handle || !spec) return false;
  return files_spec_from_path(itemOf(handle, "REALFSSpecFromFolderItem").path, *spec);
}

ObjectHandle* folderItemFromParentRef(FSRef* parent, HFSUniStr255* name) {
  return parent && name ? itemFor(files_path_from_name(*parent, *name)) : nullptr;
}

ObjectHandle* folderItemFromSpec(FSSpec* spec) {
  return spec ? itemFor(files_path_from_spec(*spec)) : nullptr;
}

// Counts from 1, in the order of the names; nil beyond, and for what is no folder.
ObjectHandle* trueItem(ObjectHandle* handle, int32_t index) {
  if (!handle || index < 1) return nullptr;
  std::error_code error;
  std::vector<std::string> paths;
  for (auto& entry : std::filesystem::directory_iterator(itemOf(handle, "TrueItem").path, error))
    paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  return size_t(index) <= paths.size() ? itemFor(paths[size_t(index) - 1]) : nullptr;
}

} // namespace operations

} // namespace host
