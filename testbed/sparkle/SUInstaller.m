#define _GNU_SOURCE
#import "SUInstaller.h"
#import "SUHost.h"
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern char** environ;

static NSString* failed(NSString* what, int error) {
  return [NSString stringWithFormat:@"%@: %s", what, strerror(error)];
}

NSString* SUWorkFolder(NSString* path, NSString** reason) {
  NSString* parent = [path stringByDeletingLastPathComponent];
  NSString* pattern = [parent stringByAppendingPathComponent:@".update-XXXXXX"];
  char* folder = strdup([pattern fileSystemRepresentation]);
  NSString* made = nil;
  if (mkdtemp(folder))
    made = [[NSFileManager defaultManager] stringWithFileSystemRepresentation:folder
                                                                       length:strlen(folder)];
  else
    *reason = failed([NSString stringWithFormat:@"no folder can be made in %@", parent], errno);
  free(folder);
  return made;
}

static BOOL isFolder(NSString* path) {
  BOOL folder = NO;
  return [[NSFileManager defaultManager] fileExistsAtPath:path isDirectory:&folder] && folder;
}

NSString* SUFindBundle(NSString* unpacked, NSString* name) {
  NSString* path = [unpacked stringByAppendingPathComponent:name];
  if (isFolder(path)) return path;
  for (NSString* entry in [[NSFileManager defaultManager] contentsOfDirectoryAtPath:unpacked
                                                                              error:NULL]) {
    path = [[unpacked stringByAppendingPathComponent:entry] stringByAppendingPathComponent:name];
    if (isFolder(path)) return path;
  }
  return nil;
}

BOOL SUReplace(NSString* path, NSString* replacement, NSString** reason) {
  const char* old = [path fileSystemRepresentation];
  const char* new = [ replacement fileSystemRepresentation ];
  if (renameat2(AT_FDCWD, new, AT_FDCWD, old, RENAME_EXCHANGE) != 0) {
    int error = errno;
    if (error != EINVAL && error != ENOSYS) {
      *reason = failed([NSString stringWithFormat:@"%@ cannot be replaced", path], error);
      return NO;
    }
    // A file system that cannot exchange two folders: two steps, the first one undone if the second
    // fails.
    NSString* aside = [replacement stringByAppendingString:@".old"];
    if (rename(old, [aside fileSystemRepresentation]) != 0) {
      *reason = failed([NSString stringWithFormat:@"%@ cannot be moved aside", path], errno);
      return NO;
    }
    if (rename(new, old) != 0) {
      *reason = failed([NSString stringWithFormat:@"%@ cannot be moved into place", path], errno);
      rename([aside fileSystemRepresentation], old);
      return NO;
    }
    replacement = aside;
  }
  [[NSFileManager defaultManager] removeItemAtPath:replacement error:NULL];
  return YES;
}

int SULaunch(NSString* path, NSString** reason) {
  NSString* program = SUBundleExecutable(path);
  if (!program) {
    *reason = [NSString stringWithFormat:@"there is no program to start in %@", path];
    return -1;
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  char* arguments[] = {strdup([program fileSystemRepresentation]), NULL};
  pid_t pid = -1;
  int error = posix_spawn(&pid, arguments[0], NULL, &attributes, arguments, environ);
  free(arguments[0]);
  posix_spawnattr_destroy(&attributes);
  if (error) {
    *reason = failed([NSString stringWithFormat:@"%@ cannot be started", program], error);
    return -1;
  }
  return pid;
}
