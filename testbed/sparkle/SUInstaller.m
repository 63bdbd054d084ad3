#define _GNU_SOURCE
#import "SUInstaller.h"
#import "SUHost.h"
#include <spawn.h>
#include <stdlib.h>
#include <string.h>

extern char** environ;

static BOOL isFolder(NSString* path) {
  BOOL folder = NO;
  return [[NSFileManager defaultManager] fileExistsAtPath:path isDirectory:&folder] && folder;
}

NSString* SUFindBundle(NSString* unpacked, NSString* name, NSString** reason) {
  NSString* path = [unpacked stringByAppendingPathComponent:name];
  if (isFolder(path)) return path;
  for (NSString* entry in [[NSFileManager defaultManager] contentsOfDirectoryAtPath:unpacked
                                                                              error:NULL]) {
    path = [[unpacked stringByAppendingPathComponent:entry] stringByAppendingPathComponent:name];
    if (isFolder(path)) return path;
  }
  *reason = [NSString stringWithFormat:@"the archive holds no folder %@", name];
  return nil;
}

BOOL SUReplace(NSString* path, NSString* replacement, NSString* aside, NSString** reason) {
  NSFileManager* files = [NSFileManager defaultManager];
  NSError* error = nil;
  if (![files moveItemAtPath:path toPath:aside error:&error]) {
    *reason = [NSString
        stringWithFormat:@"%@ cannot be moved aside: %@", path, [error localizedDescription]];
    return NO;
  }
  if (![files moveItemAtPath:replacement toPath:path error:&error]) {
    *reason = [NSString
        stringWithFormat:@"%@ cannot be put into place: %@", path, [error localizedDescription]];
    [files removeItemAtPath:path error:NULL];
    [files moveItemAtPath:aside toPath:path error:NULL];
    return NO;
  }
  return YES;
}

int SULaunch(NSString* path) {
  NSString* program = SUBundleExecutable(path);
  if (!program) return -1;
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  char* arguments[] = {strdup([program fileSystemRepresentation]), NULL};
  pid_t pid = -1;
  int error = posix_spawn(&pid, arguments[0], NULL, &attributes, arguments, environ);
  free(arguments[0]);
  posix_spawnattr_destroy(&attributes);
  return error ? -1 : pid;
}
