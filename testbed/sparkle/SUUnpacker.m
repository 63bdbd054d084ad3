#import "SUUnpacker.h"
#include <archive.h>
#include <archive_entry.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static const int kMostEntries = 100000;
static const long long kMostBytes = 2LL << 30;

// How deep `path` is below the folder in which it begins at `depth`, or -1 if it leaves that
// folder.
// ".." counts only in front: behind a name it could lead elsewhere than the names say, if that name
// is a link.
static int depthOf(const char* path, int depth) {
  if (!path || *path == '/' || !*path) return -1;
  BOOL named = NO;
  while (*path) {
    size_t length = strcspn(path, "/");
    if (length == 2 && !strncmp(path, "..", 2)) {
      if (named || --depth < 0) return -1;
    } else if (length && !(length == 1 && *path == '.')) {
      named = YES;
      ++depth;
    }
    path += length;
    while (*path == '/') ++path;
  }
  return depth;
}

static BOOL climbs(const char* path) { return depthOf(path, 0) < 0; }

static NSString* refusal(struct archive_entry* entry) {
  const char* path = archive_entry_pathname(entry);
  const char* hard = archive_entry_hardlink(entry);
  const char* soft = archive_entry_symlink(entry);
  if (!path) return @"an entry without a name";
  if (climbs(path)) return [NSString stringWithFormat:@"the path %s leads out of the folder", path];
  if (hard && climbs(hard))
    return [NSString stringWithFormat:@"the link %s leads out of the folder", path];
  if (hard) return nil;
  unsigned type = archive_entry_filetype(entry);
  if (type == AE_IFLNK) {
    if (depthOf(soft, depthOf(path, 0) - 1) < 0)
      return [NSString stringWithFormat:@"the link %s leads out of the folder", path];
    return nil;
  }
  if (type != AE_IFREG && type != AE_IFDIR)
    return [NSString stringWithFormat:@"%s is neither a file, a folder nor a link", path];
  return nil;
}

static NSString* errorOf(struct archive* a) {
  const char* text = archive_error_string(a);
  return [NSString stringWithFormat:@"%s", text ? text : "unknown error"];
}

static NSString* copyData(struct archive* from, struct archive* to, long long* total) {
  const void* block;
  size_t size;
  la_int64_t offset;
  for (;;) {
    int result = archive_read_data_block(from, &block, &size, &offset);
    if (result == ARCHIVE_EOF) return nil;
    if (result != ARCHIVE_OK) return errorOf(from);
    *total += (long long)size;
    if (*total > kMostBytes) return @"more than 2 GB in all";
    if (archive_write_data_block(to, block, size, offset) < ARCHIVE_OK) return errorOf(to);
  }
}

static NSString* unpackEntry(struct archive* from, struct archive* to, struct archive_entry* entry,
                             const char* folder, long long* total) {
  NSString* why = refusal(entry);
  if (why) return why;
  const char* hard = archive_entry_hardlink(entry);
  NSString* path = [NSString stringWithFormat:@"%s/%s", folder, archive_entry_pathname(entry)];
  archive_entry_set_pathname(entry, [path fileSystemRepresentation]);
  if (hard)
    archive_entry_set_hardlink(
        entry, [[NSString stringWithFormat:@"%s/%s", folder, hard] fileSystemRepresentation]);
  archive_entry_set_perm(entry, archive_entry_perm(entry) & 0777);
  if (archive_write_header(to, entry) != ARCHIVE_OK) return errorOf(to);
  why = copyData(from, to, total);
  if (!why && archive_write_finish_entry(to) != ARCHIVE_OK) why = errorOf(to);
  return why;
}

int SUUnpack(NSString* archive, NSString* folder, NSString** reason) {
  // The writer refuses every path that goes through a link, and a link above the folder is not
  // meant.
  char* real = realpath([folder fileSystemRepresentation], NULL);
  if (!real) {
    *reason = [NSString stringWithFormat:@"the folder %@ cannot be found", folder];
    return -1;
  }
  struct archive* from = archive_read_new();
  struct archive* to = archive_write_disk_new();
  archive_read_support_format_all(from);
  archive_read_support_filter_all(from);
  archive_write_disk_set_options(to, ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME |
                                         ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                         ARCHIVE_EXTRACT_SECURE_NODOTDOT);
  int entries = 0;
  long long total = 0;
  NSString* why = nil;
  if (archive_read_open_filename(from, [archive fileSystemRepresentation], 1 << 16) != ARCHIVE_OK)
    why = errorOf(from);
  while (!why) {
    struct archive_entry* entry;
    int result = archive_read_next_header(from, &entry);
    if (result == ARCHIVE_EOF) break;
    if (result != ARCHIVE_OK)
      why = errorOf(from);
    else if (++entries > kMostEntries)
      why = @"more than 100000 entries";
    else
      why = unpackEntry(from, to, entry, real, &total);
  }
  if (archive_write_close(to) != ARCHIVE_OK && !why) why = errorOf(to);
  archive_read_free(from);
  archive_write_free(to);
  free(real);
  *reason = why;
  return why ? -1 : entries;
}
