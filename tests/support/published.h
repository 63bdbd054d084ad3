// A whole update, from a program's side: an installed application, releases on a web server, a
// program whose updater implements all eleven events and writes down what it is told, and a person
// who presses the first button of every window. Every step is the real one: HTTP, XML, signature,
// unpacking, installing, starting.
#pragma once

#include "session.h"

#include "testbed/server/release.h"

#include <string>
#include <vector>

namespace published {

struct Told {
  std::vector<std::string> events; // names, in their order
  std::string version;             // of the update that was found
  std::string title;
  int items = -1;            // of the appcast
  bool reportsOnMain = true; // every reporting event came on the main thread
  std::string properties;    // of the update that was found, as one line
};

class Release {
public:
  Release(); // publishes 3.0 and 1.0; 2.0 is installed

  testbed::Server server;
  testbed::KeyPair keys = testbed::publisher();
  testbed::Folder folder;
  testbed::Application application;
  std::string bundle;
  testbed::Item item, older; // 3.0 and 1.0

  // Serves both items as the feed, or this text.
  void feed() { feed(testbed::appcast_xml({item, older})); }
  void feed(const std::string& xml);
  std::string feedURL() const { return server.url("/appcast.xml"); }
  // The archive of a version of the application.
  std::string archive(const std::string& version) const;

  // A program with an updater bound to the bundle. What its events are told goes into told().
  host::Object updater(host::Handlers replaced = {});
  // Sets the feed, checks, and turns the run loop until the check has ended, or the application was
  // told to quit. False when that takes a minute. A postponed relaunch is completed.
  bool check(const host::Object& updater, const char* member = "checkForUpdates");
  Told told() const;
  // The kind of the failure that ended the check ("xml", "fetch", ...); empty when none did.
  std::string failure() const;

  std::string installed() const { return testbed::installed_version(bundle); }
  // The version that was started, once it has said so; empty when none was.
  std::string started() const;

private:
  testbed::Application application_of(const std::string& version) const;
  testbed::Item publish(const std::string& version, const char* date);

  host::Object comparison_;
};

} // namespace published
