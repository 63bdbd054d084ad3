#include "convert/files.h"

#include <string.h>

namespace {

constexpr std::uint32_t kVolumeRootNode = 2;
constexpr CFIndex kLongestName = 255;

// Takes over the string; answers it in decomposed form, or as it is when no copy can be made.
CFStringRef decomposed(CFStringRef string) {
  CFMutableStringRef copy = CFStringCreateMutableCopy(nullptr, 0, string);
  if (!copy) return string;
  CFStringNormalize(copy, kCFStringNormalizationFormD);
  CFRelease(string);
  return copy;
}

// Null also when the folder is there but the item has no name in it.
CFURLRef createURLInParent(const FSRef& parent, const HFSUniStr255& name, bool* tried) {
  CFURLRef folder = CFURLCreateFromFSRef(nullptr, &parent);
  if (!folder) return nullptr;
  CFStringRef leaf =
      name.length ? CFStringCreateWithCharacters(nullptr, name.unicode, name.length) : nullptr;
  CFURLRef url = nullptr;
  if (leaf) {
    *tried = true;
    leaf = decomposed(leaf);
    url = CFURLCreateCopyAppendingPathComponent(nullptr, folder, leaf, false);
    CFRelease(leaf);
  }
  CFRelease(folder);
  return url;
}

CFURLRef createURLFromSpec(REALfolderItemStruct* item) {
  FSSpec spec;
  FSRef ref;
  if (!REALFSSpecFromFolderItem(&spec, item)) return nullptr;
  if (FSpMakeFSRef(&spec, &ref) != 0) return nullptr;
  return CFURLCreateFromFSRef(nullptr, &ref);
}

REALfolderItemStruct* existingFile(const FSRef& ref) {
  FSCatalogInfo info;
  FSRef parent;
  if (FSGetCatalogInfo(&ref, kFSCatInfoNodeID, &info, nullptr, nullptr, &parent) == 0) {
    // What the system calls the parent of a volume's root is no folder of the host's.
    if (info.nodeID == kVolumeRootNode) memset(&parent, 0, sizeof parent);
    HFSUniStr255 name;
    if (FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, &name, nullptr, nullptr) == 0 &&
        FSGetCatalogInfo(&parent, kFSCatInfoNone, nullptr, nullptr, nullptr, nullptr) == 0) {
      return REALFolderItemFromParentFSRef(&parent, &name);
    }
  }
  FSSpec spec;
  if (FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, &spec, nullptr) != 0) {
    return nullptr;
  }
  return REALFolderItemFromFSSpec(&spec);
}

REALfolderItemStruct* missingFile(CFURLRef url, const FSRef& parent) {
  CFStringRef leaf = CFURLCopyLastPathComponent(url);
  if (!leaf) return nullptr;
  leaf = decomposed(leaf);
  CFIndex length = CFStringGetLength(leaf);
  if (length < 0) length = 0;
  if (length > kLongestName) length = kLongestName;
  HFSUniStr255 name;
  name.length = static_cast<std::uint16_t>(length);
  CFStringGetCharacters(leaf, {0, length}, name.unicode);
  CFRelease(leaf);
  return REALFolderItemFromParentFSRef(&parent, &name);
}

} // namespace

CFURLRef CreateCFURLfromFolderItem(REALfolderItemStruct* item) {
  if (!item) return nullptr;
  FSRef ref;
  if (REALFSRefFromFolderItem(item, &ref, nullptr)) {
    if (CFURLRef url = CFURLCreateFromFSRef(nullptr, &ref)) return url;
  }
  HFSUniStr255 name;
  memset(&name, 0, sizeof name);
  if (REALFSRefFromFolderItem(item, &ref, &name)) {
    bool tried = false;
    CFURLRef url = createURLInParent(ref, name, &tried);
    if (tried) return url;
  }
  return createURLFromSpec(item);
}

REALfolderItemStruct* CFURL2RBFile(CFURLRef url) {
  if (!url) return nullptr;
  FSRef ref;
  if (CFURLGetFSRef(url, &ref)) return existingFile(ref);
  CFURLRef folder = CFURLCreateCopyDeletingLastPathComponent(nullptr, url);
  if (!folder) return nullptr;
  FSRef parent;
  Boolean exists = CFURLGetFSRef(folder, &parent);
  CFRelease(folder);
  return exists ? missingFile(url, parent) : nullptr;
}

id autoreleasedPath(REALfolderItemStruct* item) {
  id url = asObject(CreateCFURLfromFolderItem(item));
  if (!send<id>(url, "autorelease"_sel)) return nullptr;
  return send<id>(asObject(CFURLCopyFileSystemPath(asURL(url), kCFURLPOSIXPathStyle)),
                  "autorelease"_sel);
}
