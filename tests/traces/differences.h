// What a recording holds and cannot be played here. Everything else must be as it was recorded.
#pragma once

#include <vector>

namespace traces {

struct Difference {
  const char* version;  // "": both
  const char* scenario; // the beginning of its name
  const char* line;     // a part of the recorded line
  bool rest;            // that line and all that follow it, else the line alone
  std::vector<const char*> instead;
  const char* reason;
};

// Where the real framework goes on with memory that was the updater's, the testbed's ends the
// process and says whose updater it was.
constexpr const char* theEnd = "the process ends: the updater is used after its release";

inline const std::vector<const char*> refusal = {
    "main      step: an alert",
    "main      LOG why",
    "main      step: the check is over",
    "# in progress: false",
    "# lastUpdateCheckDate a Date",
    "# server: GET /appcast.xml?edition=Pro%20&%20Team&name=%C3%A4+b%23c=d?e/f%25&count=7&flag=1"
    "&d=1.5  agent \"Demo/2.0 Sparkle/1.6.1\"",
    "# server: GET /Demo_3.0.zip  agent \"Demo/2.0 Sparkle/1.6.1\"",
    "# installed now: 2.0",
    "# started: nothing",
    "main      call Comparison.Destructor",
    "main      ret  Destructor",
    "exit 0",
};

inline const std::vector<Difference> differences = {
    {"",
     "",
     "cannot append extension 'icns'",
     false,
     {},
     "GNUstep's complaint about the picture of an alert; nothing is drawn here"},
    {"", "lifetimes", "exit 139", true, {theEnd}, "a segmentation fault"},
    {"", "two", "exit 139", true, {theEnd}, "a segmentation fault"},
    {"1.6",
     "destroy-during",
     "Uncaught exception",
     true,
     {theEnd},
     "an array stood where the updater had been"},
    {"1.6",
     "destroy-didFindValidUpdate",
     "NSTimer ignoring exception",
     true,
     {theEnd},
     "a string stood where the updater had been"},
    {"1.6",
     "check-checkForUpdatesInBackground-automatic-profile",
     "# server: GET /appcast.xml",
     false,
     {"# server: GET /appcast.xml?edition=Pro%20&%20Team&name=%C3%A4+b%23c=d?e/f%25&count=7&flag=1"
      "&d=1.5&osVersion=10.6.8&cputype=7&cpu64bit=1&cpusubtype=4&model=MacBook5,1&ncpu=2&lang=en"
      "&appName=Demo&appVersion=2.0&cpuFreqMHz=2400&ramMB=2048  agent \"Demo/2.0 Sparkle/1.6.1\""},
     "nothing profiled the machine when this was recorded"},
    {"1.6", "check-checkForUpdatesInBackground-badsignature", "LOG Code signature", true, refusal,
     "nothing verified signatures when this was recorded"},
    {"1.6", "check-checkForUpdatesInBackground-single", "LOG Code signature", true, refusal,
     "nothing verified signatures when this was recorded"},
};

} // namespace traces
