// The Carbon File Manager on POSIX files. See carbon.h and files.h.

#include "testbed/cocoa/files.h"

#include "testbed/cocoa/encodings.h"
#include "testbed/cocoa/marks.h"
#include "testbed/cocoa/observe.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include <limits.h>
#include <sys/stat.h>

namespace {

constexpr uint32_t reference_magic = 0x46535266;
constexpr int first_volume = -100;
constexpr uint32_t first_free_id = 16; // Mac OS X keeps the lower ones for itself
constexpr size_t longest_spec_name = 31;

// What an FSRef holds; the rest is zero.
struct reference {
  uint32_t magic;
  uint32_t path;
  uint32_t check;
};
static_assert(sizeof(reference) <= sizeof(FSRef));

// Everything that a record can stand for. Nothing is ever forgotten.
struct tables {
  std::mutex lock;
  std::vector<std::string> paths;
  std::map<std::string, uint32_t> number_of_path;
  std::vector<std::string> volumes = {"/"};
  std::map<std::pair<uint32_t, std::string>, std::string> real_names; // folder and short name
};

tables& known() {
  static auto& only = *new tables;
  return only;
}

uint32_t number_of(const std::string& path) {
  auto& all = known();
  auto [found, added] = all.number_of_path.try_emplace(path, all.paths.size());
  if (added) all.paths.push_back(path);
  return found->second;
}

std::string last_component(const std::string& path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  size_t slash = path.find_last_of('/', end);
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(start, end + 1 - start);
}

std::string parent_of(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string join(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

std::optional<std::string> real_path(const std::string& path) {
  char resolved[PATH_MAX];
  if (!realpath(path.c_str(), resolved)) return {};
  return resolved;
}

// The last component itself is not followed: a reference to a link means the link.
std::optional<std::string> canonical(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return {};
  std::string name = last_component(path);
  if (name == "/" || name == "." || name == "..") return real_path(path);
  size_t end = path.find_last_not_of('/') + 1 - name.size();
  auto folder = real_path(end ? path.substr(0, end) : ".");
  struct stat info;
  if (!folder || stat(folder->c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return {};
  return join(*folder, name);
}

bool exists(const std::string& path, struct stat& info) { return lstat(path.c_str(), &info) == 0; }

// -1 for what is no volume's root.
int volume_with_root(const std::string& path) {
  auto& volumes = known().volumes;
  for (size_t n = 0; n < volumes.size(); ++n)
    if (volumes[n] == path) return static_cast<int>(n);
  return -1;
}

int volume_of(std::string path) {
  for (;; path = parent_of(path)) {
    int found = volume_with_root(path);
    if (found >= 0) return found;
  }
}

// A folder's ID leads back to its path, so these are numbers of this library, not inodes.
uint32_t id_of(const std::string& path) {
  return volume_with_root(path) >= 0 ? fsRtDirID : first_free_id + number_of(path);
}

std::optional<std::string> path_of_id(int volume, uint32_t id) {
  auto& all = known();
  if (id == fsRtDirID) return all.volumes[volume];
  if (id < first_free_id || id - first_free_id >= all.paths.size()) return {};
  return all.paths[id - first_free_id];
}

bool set_name(const std::string& text, HFSUniStr255& name) {
  auto units = encodings::decode(text, encodings::utf8);
  if (!units || units->size() > std::size(name.unicode)) return false;
  name.length = static_cast<uint16_t>(units->size());
  memcpy(name.unicode, units->data(), units->size() * 2);
  return true;
}

// As the File Manager does it: the beginning, a number, the extension.
std::string short_form(const std::string& name, uint32_t id) {
  std::string beginning;
  auto units = encodings::decode(name, encodings::utf8).value_or(u"");
  for (char16_t unit : units) {
    if (beginning.size() == 16) break;
    beginning += encodings::encode({&unit, 1}, encodings::mac_roman).value_or("?");
  }
  char number[12];
  snprintf(number, sizeof number, "#%X", id);
  return beginning + number;
}

void set_spec(const std::string& path, FSSpec& spec) {
  spec = {};
  int root = volume_with_root(path);
  int volume = root >= 0 ? root : volume_of(path);
  std::string name = last_component(path);
  spec.vRefNum = static_cast<FSVolumeRefNum>(first_volume - volume);
  spec.parID = root >= 0 ? fsRtParID : static_cast<int32_t>(id_of(parent_of(path)));
  auto units = encodings::decode(name, encodings::utf8);
  std::optional<std::string> bytes;
  if (units) bytes = encodings::encode(*units, encodings::mac_roman);
  if (!bytes || bytes->size() > longest_spec_name || bytes->find('#') != std::string::npos) {
    bytes = short_form(name, first_free_id + number_of(path));
    known().real_names[{static_cast<uint32_t>(spec.parID), *bytes}] = name;
  }
  spec.name[0] = static_cast<uint8_t>(bytes->size());
  memcpy(spec.name + 1, bytes->data(), bytes->size());
}

void set_ref(const std::string& path, FSRef& item) {
  uint32_t number = number_of(path);
  reference made = {reference_magic, number, ~number};
  item = {};
  memcpy(&item, &made, sizeof made);
}

std::optional<std::string> path_of_ref(const FSRef& item) {
  reference held;
  memcpy(&held, &item, sizeof held);
  auto& paths = known().paths;
  if (held.magic != reference_magic || held.check != ~held.path || held.path >= paths.size())
    return {};
  return paths[held.path];
}

// The path, or an error.
OSErr resolve(const FSSpec& spec, std::string& path) {
  auto& all = known();
  int volume = first_volume - spec.vRefNum;
  if (volume < 0 || volume >= static_cast<int>(all.volumes.size())) return nsvErr;
  size_t length = spec.name[0];
  if (!length || length >= sizeof spec.name) return bdNamErr;
  std::string bytes(reinterpret_cast<const char*>(spec.name + 1), length);
  if (spec.parID == fsRtParID) {
    path = all.volumes[volume];
    return noErr;
  }
  auto folder = path_of_id(volume, static_cast<uint32_t>(spec.parID));
  if (!folder) return dirNFErr;
  auto real = all.real_names.find({static_cast<uint32_t>(spec.parID), bytes});
  if (real != all.real_names.end()) {
    path = join(*folder, real->second);
    return noErr;
  }
  auto units = encodings::decode(bytes, encodings::mac_roman);
  auto name = units ? encodings::encode(*units, encodings::utf8) : std::nullopt;
  if (!name || name->find('/') != std::string::npos || name->find('\0') != std::string::npos)
    return bdNamErr;
  path = join(*folder, *name);
  return noErr;
}

OSErr catalog(const std::string& path, uint32_t which, FSCatalogInfo* info, HFSUniStr255* name,
              FSSpec* spec, FSRef* parent) {
  constexpr uint32_t supported = kFSCatInfoNodeFlags | kFSCatInfoVolume | kFSCatInfoParentDirID |
                                 kFSCatInfoNodeID | kFSCatInfoDataSizes;
  if ((which & ~supported) || (which && !info)) return paramErr;
  struct stat found;
  if (!exists(path, found)) return fnfErr;
  bool root = volume_with_root(path) >= 0;
  if (name && !set_name(last_component(path), *name)) return bdNamErr;
  if (which & kFSCatInfoNodeFlags)
    info->nodeFlags = S_ISDIR(found.st_mode) ? kFSNodeIsDirectoryMask : 0;
  if (which & kFSCatInfoVolume)
    info->volume = static_cast<FSVolumeRefNum>(first_volume - volume_of(path));
  if (which & kFSCatInfoParentDirID) info->parentDirID = root ? fsRtParID : id_of(parent_of(path));
  if (which & kFSCatInfoNodeID) info->nodeID = id_of(path);
  if (which & kFSCatInfoDataSizes) {
    info->dataLogicalSize = static_cast<uint64_t>(found.st_size);
    info->dataPhysicalSize = static_cast<uint64_t>(found.st_blocks) * 512;
  }
  if (spec) set_spec(path, *spec);
  if (parent) {
    *parent = {};
    if (!root) set_ref(parent_of(path), *parent);
  }
  return noErr;
}

} // namespace

#pragma GCC visibility push(default)

bool files_ref_from_path(const std::string& path, FSRef& item) {
  std::lock_guard guard(known().lock);
  auto whole = canonical(path);
  struct stat info;
  if (!whole || !exists(*whole, info)) return false;
  set_ref(*whole, item);
  return true;
}

std::optional<std::string> files_path_from_ref(const FSRef& item) {
  std::lock_guard guard(known().lock);
  return path_of_ref(item);
}

bool files_spec_from_path(const std::string& path, FSSpec& item) {
  std::lock_guard guard(known().lock);
  auto whole = canonical(path);
  if (whole) set_spec(*whole, item);
  return whole.has_value();
}

std::optional<std::string> files_path_from_spec(const FSSpec& item) {
  std::lock_guard guard(known().lock);
  std::string path;
  if (resolve(item, path) != noErr) return {};
  return path;
}

bool files_name_from_path(const std::string& path, HFSUniStr255& name) {
  return set_name(last_component(path), name);
}

std::optional<std::string> files_path_from_name(const FSRef& folder, const HFSUniStr255& name) {
  std::lock_guard guard(known().lock);
  auto path = path_of_ref(folder);
  if (!path || !name.length || name.length > std::size(name.unicode)) return {};
  std::u16string units(name.length, u'\0');
  memcpy(units.data(), name.unicode, name.length * 2u);
  auto text = encodings::encode(units, encodings::utf8);
  if (!text || text->find('/') != std::string::npos || text->find('\0') != std::string::npos)
    return {};
  return join(*path, *text);
}

bool files_declare_volume(const std::string& path) {
  std::lock_guard guard(known().lock);
  auto whole = real_path(path);
  struct stat info;
  if (!whole || stat(whole->c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
  if (volume_with_root(*whole) < 0) known().volumes.push_back(*whole);
  return true;
}

extern "C" {

OSErr FSGetCatalogInfo(const FSRef* item, uint32_t which, FSCatalogInfo* info, HFSUniStr255* name,
                       FSSpec* spec, FSRef* parent) {
  if (observe::fails("FSGetCatalogInfo")) return fnfErr;
  std::lock_guard guard(known().lock);
  auto path = path_of_ref(*item);
  return path ? catalog(*path, which, info, name, spec, parent) : errFSBadFSRef;
}

OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* item) {
  if (observe::fails("FSpMakeFSRef")) return fnfErr;
  std::lock_guard guard(known().lock);
  std::string path;
  if (OSErr error = resolve(*spec, path)) return error;
  struct stat info;
  if (!exists(path, info)) {
    return exists(parent_of(path), info) ? fnfErr : dirNFErr;
  }
  set_ref(path, *item);
  return noErr;
}
}

#pragma GCC visibility pop
