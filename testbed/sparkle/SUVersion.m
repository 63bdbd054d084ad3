#import "SUVersion.h"
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const SUVersion versions[] = {
    {.name = "1.5b6",
     .number = "1.5",
     .feedKey = "SUFeedURLKey",
     .sparesAReference = YES,
     .keepsIncrementalData = YES},
    {.name = "1.6",
     .number = "1.6.1",
     .feedKey = "SUFeedURL key",
     .startsAtOnce = YES,
     .checksInBackgroundLater = YES,
     .tellsNotFoundInBackground = YES,
     .keepsALog = YES,
     .installsWithATool = YES},
    {.name = "workers",
     .number = "1.5",
     .feedKey = "SUFeedURLKey",
     .sparesAReference = YES,
     .keepsIncrementalData = YES,
     .worksOnThreads = YES},
};

static const SUVersion* current;

__attribute__((constructor)) static void choose(void) {
  const char* wanted = getenv("SPARKLE_VERSION");
  if (!wanted || !*wanted) wanted = versions[0].name;
  for (size_t i = 0; i < sizeof versions / sizeof *versions; ++i)
    if (!strcmp(versions[i].name, wanted)) current = &versions[i];
  if (current) return;
  fprintf(stderr, "Sparkle: SPARKLE_VERSION is \"%s\"; it must be 1.5b6, 1.6 or workers.\n",
          wanted);
  abort();
}

const SUVersion* SUThisVersion(void) { return current; }
