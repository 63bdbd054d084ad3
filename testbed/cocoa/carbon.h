/* The Carbon File Manager's records as they lie in memory on Mac OS X (packed to 2 bytes), and its
 * functions as this library implements them on POSIX files. For the testbed; files.h makes and
 * reads the records.
 *
 * Names are POSIX names, in the form in which they stand in the file system: a slash can not occur
 * in them, and a colon stands for itself.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int16_t OSErr;
typedef int16_t FSVolumeRefNum;

enum {
  noErr = 0,
  nsvErr = -35,   /* no such volume */
  bdNamErr = -37, /* the name cannot be expressed */
  fnfErr = -43,   /* no such item, its folder exists */
  paramErr = -50,
  dirNFErr = -120,      /* no such folder */
  errFSBadFSRef = -1401 /* never filled in, or zeroed */
};

enum {
  kFSCatInfoNone = 0,
  kFSCatInfoNodeFlags = 0x2,
  kFSCatInfoVolume = 0x4,
  kFSCatInfoParentDirID = 0x8,
  kFSCatInfoNodeID = 0x10,
  kFSCatInfoDataSizes = 0x4000
};

enum { kFSNodeIsDirectoryMask = 0x10, fsRtParID = 1, fsRtDirID = 2 };

#pragma pack(push, 2)

typedef struct FSRef {
  uint8_t hidden[80];
} FSRef;

typedef struct HFSUniStr255 {
  uint16_t length;
  uint16_t unicode[255];
} HFSUniStr255;

typedef struct FSSpec {
  FSVolumeRefNum vRefNum;
  int32_t parID;
  uint8_t name[64]; /* length byte, then Mac Roman */
} FSSpec;

typedef struct FSCatalogInfo {
  uint16_t nodeFlags;
  FSVolumeRefNum volume;
  uint32_t parentDirID;
  uint32_t nodeID;
  uint8_t sharingFlags;
  uint8_t userPrivileges;
  uint8_t reserved1;
  uint8_t reserved2;
  uint16_t dates[5][4]; /* create, content, attribute, access, backup */
  uint32_t permissions[4];
  uint8_t finderInfo[16];
  uint8_t extFinderInfo[16];
  uint64_t dataLogicalSize;
  uint64_t dataPhysicalSize;
  uint64_t rsrcLogicalSize;
  uint64_t rsrcPhysicalSize;
  uint32_t valence;
  uint32_t textEncodingHint;
} FSCatalogInfo;

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(FSRef) == 80 && sizeof(HFSUniStr255) == 512 && sizeof(FSSpec) == 70);
static_assert(offsetof(FSCatalogInfo, nodeID) == 8 && offsetof(FSCatalogInfo, permissions) == 56 &&
              offsetof(FSCatalogInfo, dataLogicalSize) == 104 && sizeof(FSCatalogInfo) == 144);
#endif

/* What an item is. Any of the last four may be NULL. WHICH may ask for node flags, volume, parent
 * and node ID and the data sizes; paramErr for anything else, rather than leave a field unset. A
 * volume's root has node ID 2, parent ID 1 and an all-zero PARENT. */
OSErr FSGetCatalogInfo(const FSRef* item, uint32_t which, FSCatalogInfo* info, HFSUniStr255* name,
                       FSSpec* spec, FSRef* parent);

/* The reference of the item that a spec names; fnfErr when it does not exist. */
OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* item);

#ifdef __cplusplus
}
#endif
