// What a maker of software does to publish a release: an application, an archive of it, a
// signature, an appcast. Everything here works on values; what writes to disk says so. Errors:
// std::runtime_error, with what failed and on what. Any thread may call.
#pragma once

#include "server.h"

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace testbed {

// A new folder below the build folder's tmp/, removed with everything in it by the destructor.
class Folder {
public:
  Folder();
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

private:
  std::filesystem::path path_;
};

// A path as it stands in a file URL.
std::string percent_escaped(const std::string& path);

// DSA, 1024 bits with a q of 160, in PEM form. The domain parameters are fixed, so that a pair is
// made in no time.
struct KeyPair {
  std::string private_pem;
  std::string public_pem;
};
KeyPair make_key_pair();

// One for the whole program. It is made, and has signed, before main, so that not every test that
// is forked waits for OpenSSL to get ready.
const KeyPair& publisher();

// What sparkle:dsaSignature holds: DSA over the SHA-1 of the archive's SHA-1, DER, base64 without
// line breaks.
std::string sign(const KeyPair& keys, const std::string& archive);
// The same over the SHA-1 of `bytes`, which is no signature of an archive.
std::string sign_once(const KeyPair& keys, const std::string& bytes);

// One entry of an archive, whether a decent one or not.
struct Entry {
  enum class Kind { file, folder, link, hard_link, fifo };
  std::string path;
  std::string contents = {}; // of a link: where it leads
  Kind kind = Kind::file;
  unsigned permissions = 0644;
};
enum class ArchiveKind { zip, tar_gz };
std::string make_archive(const std::vector<Entry>& entries, ArchiveKind kind = ArchiveKind::zip);

// An application bundle: FOLDER/Contents/{Info.plist, MacOS/NAME, Resources/dsa_pub.pem}. The
// program is a shell script that, when started, writes its version and process id, a line each, to
// the file `marker` (at once, so that a reader never sees half of it).
struct Application {
  std::string folder = "Demo.app";
  std::string name = "Demo";
  std::string identifier = "org.example.demo";
  std::string version = "1.0";
  std::string short_version = "";               // empty: none
  std::string public_pem = "";                  // empty: no key file
  std::filesystem::path marker = {};            // empty: the program does nothing
  std::map<std::string, std::string> info = {}; // further strings of the Info.plist, e.g. SUFeedURL
  std::map<std::string, std::string> files = {}; // further files, by path below the folder
};
std::vector<Entry> entries_of(const Application& application);
// Writes it below `parent`; answers the bundle's folder.
std::filesystem::path write_application(const Application& application,
                                        const std::filesystem::path& parent);
// The version in the Info.plist of the bundle at `bundle`; empty if there is none.
std::string installed_version(const std::filesystem::path& bundle);

// An <item>. An empty member is left out.
struct Item {
  std::string title;
  std::string description;
  std::string date; // as it shall stand in the feed, e.g. "Sat, 26 Jul 2008 15:20:11 +0000"
  std::string release_notes;
  std::string minimum_system;
  std::string version;       // sparkle:version
  std::string short_version; // sparkle:shortVersionString
  std::string url;           // without one there is no enclosure
  std::string length;
  std::string type = "application/octet-stream";
  std::string signature;
  std::string extra; // further XML, put in as it is
};
std::string appcast_xml(const std::vector<Item>& items);

// A release that is ready to be found: the archive of `application` at "/NAME_VERSION.zip", and an
// appcast with it as the only item at "/appcast.xml". Answers that item.
Item publish(Server& server, const Application& application, const KeyPair& keys);

// Waits until the file exists (and so is complete, see Application); false after `patience`.
bool wait_for_file(const std::filesystem::path& file,
                   std::chrono::milliseconds patience = std::chrono::seconds(10));
// The file's contents; empty if it cannot be read.
std::string read_file(const std::filesystem::path& file);
void write_file(const std::filesystem::path& file, const std::string& contents,
                unsigned permissions = 0644);

} // namespace testbed
