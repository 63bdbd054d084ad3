// Files between the host's FolderItem and Cocoa's file URL: which of the host's and the system's
// ways is taken when, for files that are there and for such that are still to come.
//
// Host to Cocoa goes through a dictionary of feed parameters, Cocoa to host through an item's
// properties. There, what is no file is an absent value or the URL's text.

#include "plugin_objects.h"
#include "session.h"

#include "testbed/cocoa/faults.h"
#include "testbed/cocoa/files.h"
#include "testbed/server/release.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>

#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <set>

using testing::ElementsAre;
using testing::IsEmpty;

@interface Properties : NSObject {
@public
  NSDictionary* properties;
}
@end

@implementation Properties
- (NSDictionary*)propertiesDictionary {
  return properties;
}
@end

// Plays an updater whose host bundle says to be anywhere.
@interface BundleHolder : NSObject {
@public
  NSString* path;
}
@end

@implementation BundleHolder
- (id)hostBundle {
  return self;
}
- (NSString*)bundlePath {
  return path;
}
- (void)setDelegate:(id)delegate {
  (void)delegate;
}
@end

// Stands before the File Manager: to some of its versions a volume's root has a parent that seems
// to be a folder.
static bool rootsHaveParents;

extern "C" __attribute__((visibility("default"))) OSErr
FSGetCatalogInfo(const FSRef* item, uint32_t which, FSCatalogInfo* info, HFSUniStr255* name,
                 FSSpec* spec, FSRef* parent) {
  static auto* original =
      reinterpret_cast<decltype(&FSGetCatalogInfo)>(dlsym(RTLD_NEXT, "FSGetCatalogInfo"));
  OSErr error = original(item, which, info, name, spec, parent);
  if (rootsHaveParents && error == noErr && parent && info && info->nodeID == fsRtDirID)
    *parent = *item;
  return error;
}

namespace {

const std::string refFromItem = "REALFSRefFromFolderItem";
const std::string specFromItem = "REALFSSpecFromFolderItem";
const std::string itemFromParent = "REALFolderItemFromParentFSRef";
const std::string itemFromSpec = "FolderItemFromFSSpec";
const std::set<std::string> fileOperations = {refFromItem, specFromItem, itemFromParent,
                                              itemFromSpec};

std::vector<host::LogEntry> stopFileLog() {
  std::vector<host::LogEntry> log = host::stopLog();
  std::erase_if(log,
                [](const host::LogEntry& entry) { return !fileOperations.contains(entry.name); });
  return log;
}
std::vector<std::string> namesOf(const std::vector<host::LogEntry>& log) {
  std::vector<std::string> names;
  for (const host::LogEntry& entry : log) names.push_back(entry.name);
  return names;
}

std::string repeated(std::string_view text, size_t times) {
  std::string result;
  while (times--) result += text;
  return result;
}

// Lets calls of one function fail, in a row; the others stay as they are.
class Failing {
public:
  Failing(const char* function, unsigned long nth, unsigned long count = 1)
      : function_(function), last_(nth + count - 1) {
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_call(function, nth);
    faults_on_call(
        [](void* context, const char* name) {
          auto* self = static_cast<Failing*>(context);
          if (self->function_ != name) return;
          unsigned long next = faults_calls(name) + 1;
          if (next <= self->last_ && faults_fired() > 0) faults_fail_call(name, next);
        },
        this);
  }
  ~Failing() {
    faults_stop();
    faults_on_call(nullptr, nullptr);
    EXPECT_GT(faults_fired(), 0u) << function_ << " was not called that often";
  }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;

private:
  std::string function_;
  unsigned long last_;
};

// Files are the same on every host.
class Files : public session::TestBase {
protected:
  void SetUp() override {
    session::TestBase::SetUp();
    session::start("2013.03");
    root = std::filesystem::canonical(session::folder());
    escapedRoot = testbed::percent_escaped(root);
    host::subclass("Feeding", "SUUpdaterKVZ",
                   {{"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
                     [this](host::Event&) { return host::Value(parameters); }}});
    updater = host::construct("Feeding", "Constructor");
    // Made even where there is no framework; the second word of the data.
    delegate = static_cast<id*>(host::data(updater))[1];
    ASSERT_TRUE(delegate);
    properties = [Properties new];
    item = host::create("SUAppcastItemKVZ");
    host::set(item, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>(properties)));
    host::resetCounts();
  }
  void TearDown() override {
    updater.reset();
    item.reset();
    session::TestBase::TearDown();
  }

  std::string file(const std::string& name) {
    std::ofstream(root + "/" + name) << "contents";
    return root + "/" + name;
  }
  std::string folder(const std::string& name) {
    std::filesystem::create_directories(root + "/" + name);
    return root + "/" + name;
  }

  // The URL of a FolderItem; nil for none. Only the file operations are logged.
  NSURL* toCocoa(const host::Object& folderItem) {
    host::startLog();
    parameters = host::array(9, {host::dictionary({{"file", folderItem}})});
    NSArray* answer = [delegate feedParametersForUpdater:nil sendingSystemProfile:NO];
    parameters = nullptr;
    host::clearEvents();
    log = stopFileLog();
    EXPECT_EQ([answer count], 1u);
    id value = [[answer objectAtIndex:0] objectForKey:@"file"];
    EXPECT_TRUE(value);
    return value == [NSNull null] ? nil : value;
  }
  NSURL* toCocoa(const std::string& path) { return toCocoa(host::folderItem(path)); }
  std::string url(const auto& folderItem) {
    NSURL* url = toCocoa(folderItem);
    return url ? [[url absoluteString] UTF8String] : "nil";
  }

  // The FolderItem of a URL; nil for none.
  host::Object toHost(NSURL* url) {
    host::startLog();
    properties->properties = [NSDictionary dictionaryWithObject:url forKey:@"url"];
    auto dictionary = host::get<host::Object>(item, "propertiesDictionary as dictionary");
    log = stopFileLog();
    host::Object value = host::at(dictionary, "url");
    if (host::isA(value, "FolderItem")) return value;
    EXPECT_EQ(host::inspect(value).value.as<std::string>(), [[url absoluteString] UTF8String]);
    return nullptr;
  }
  std::string path(NSURL* url) {
    host::Object folderItem = toHost(url);
    return folderItem ? host::path(folderItem) : "nil";
  }
  std::string pathOfText(const std::string& url) {
    return path([NSURL URLWithString:[NSString stringWithUTF8String:url.c_str()]]);
  }
  // NSURL's own escaping.
  std::string pathOfFile(const std::string& path) {
    return this->path([NSURL fileURLWithPath:[NSString stringWithUTF8String:path.c_str()]]);
  }

  std::vector<std::string> operations() const { return namesOf(log); }

  std::string root, escapedRoot;
  std::vector<host::LogEntry> log;

private:
  host::Object updater, parameters, item;
  id delegate = nil;
  Properties* properties = nil;
};

// ---- FolderItem to URL
// ---------------------------------------------------------------------------

TEST_F(Files, NoFolderItemIsNoURL) {
  EXPECT_FALSE(toCocoa(host::Object()));
  EXPECT_THAT(operations(), IsEmpty());
}

TEST_F(Files, AnExistingFileIsItsURL) {
  EXPECT_EQ(url(file("there.txt")), "file://" + escapedRoot + "/there.txt");
  EXPECT_THAT(operations(), ElementsAre(refFromItem));
  EXPECT_EQ(log[0].arguments.at(2), "nil") << "the name is asked for although the file is there";
}

TEST_F(Files, AnExistingFolderIsMarkedAsOne) {
  EXPECT_EQ(url(folder("there")), "file://" + escapedRoot + "/there/");
  EXPECT_THAT(operations(), ElementsAre(refFromItem));
}

TEST_F(Files, TheRootOfAVolumeIsItsURL) { EXPECT_EQ(url("/"), "file:///"); }

TEST_F(Files, AnExistingNameStandsInTheURLAsItStandsOnDisk) {
  EXPECT_EQ(url(file("caf\xC3\xA9 100%.txt")), "file://" + escapedRoot + "/caf%C3%A9%20100%25.txt");
  EXPECT_EQ(url(file("cafe\xCC\x81")), "file://" + escapedRoot + "/cafe%CC%81");
}

TEST_F(Files, AMissingFileIsAppendedToItsFolderAndNotMarkedAsOne) {
  EXPECT_EQ(url(folder("there") + "/missing.app"), "file://" + escapedRoot + "/there/missing.app");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem));
  EXPECT_EQ(log[0].arguments.at(2), "nil");
  EXPECT_NE(log[1].arguments.at(2), "nil") << "the name was not asked for";
}

TEST_F(Files, AMissingNameIsDecomposed) {
  EXPECT_EQ(url(root + "/caf\xC3\xA9"), "file://" + escapedRoot + "/cafe%CC%81");
  EXPECT_EQ(url(root + "/cafe\xCC\x81"), "file://" + escapedRoot + "/cafe%CC%81");
  // A letter with two marks, and a Hangul syllable.
  EXPECT_EQ(url(root + "/\xE1\xBB\x87"), "file://" + escapedRoot + "/e%CC%A3%CC%82");
  EXPECT_EQ(url(root + "/\xEA\xB0\x80"), "file://" + escapedRoot + "/%E1%84%80%E1%85%A1");
}

TEST_F(Files, AMissingFileKeepsTheFormOfItsFolder) {
  EXPECT_EQ(url(folder("caf\xC3\xA9") + "/caf\xC3\xA9"),
            "file://" + escapedRoot + "/caf%C3%A9/cafe%CC%81");
}

TEST_F(Files, AMissingNameOf255UnitsIsWhole) {
  std::string name = repeated("n", 255);
  EXPECT_EQ(url(root + "/" + name), "file://" + escapedRoot + "/" + name);
}

TEST_F(Files, AMissingNameIsTheHostsNotThePaths) {
  host::Object item = host::folderItem(root + "/missing");
  host::setLeafName(item, u"caf\u00E9 else");
  EXPECT_EQ(url(item), "file://" + escapedRoot + "/cafe%CC%81%20else");
}

TEST_F(Files, AMissingNameInAMissingFolderIsNoURL) {
  EXPECT_EQ(url(root + "/none/missing"), "nil");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem, specFromItem));
}

TEST_F(Files, AnEmptyMissingNameGoesTheOldWayAndFindsNothing) {
  host::Object item = host::folderItem(root + "/missing");
  host::setLeafName(item, u"");
  faults_start(FAULTS_THIS_THREAD);
  EXPECT_EQ(url(item), "nil");
  faults_stop();
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem, specFromItem));
  EXPECT_EQ(faults_calls("FSpMakeFSRef"), 1u);
  EXPECT_EQ(faults_calls("CFURLCreateCopyAppendingPathComponent"), 0u);
}

TEST_F(Files, AMissingNameThatCannotBeMadeGoesTheOldWay) {
  host::Object item = host::folderItem(root + "/missing");
  Failing failing("CFStringCreateWithCharacters", 1);
  EXPECT_EQ(url(item), "nil");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem, specFromItem));
}

TEST_F(Files, AMissingNameThatCannotBeCopiedIsUsedAsItIs) {
  Failing failing("CFStringCreateMutableCopy", 1);
  EXPECT_EQ(url(root + "/caf\xC3\xA9"), "file://" + escapedRoot + "/caf%C3%A9");
}

TEST_F(Files, AMissingNameThatCannotBeAppendedIsNoURLWithoutTheOldWay) {
  {
    Failing failing("CFURLCreateCopyAppendingPathComponent", 1);
    EXPECT_EQ(url(root + "/missing"), "nil");
    EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem));
  }
  host::Object item = host::folderItem(root + "/missing");
  host::setLeafName(item, u"lone \xD83D surrogate");
  EXPECT_EQ(url(item), "nil");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem));
}

TEST_F(Files, AnExistingFileWithoutAURLOfItsOwnIsAppendedToItsFolder) {
  std::string there = file("caf\xC3\xA9");
  Failing failing("CFURLCreateFromFSRef", 1);
  EXPECT_EQ(url(there), "file://" + escapedRoot + "/cafe%CC%81");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem));
}

TEST_F(Files, AnExistingFileWithoutAURLForItsFolderGoesTheOldWay) {
  std::string there = file("there");
  {
    Failing failing("CFURLCreateFromFSRef", 1, 2);
    EXPECT_EQ(url(there), "file://" + escapedRoot + "/there");
    EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem, specFromItem));
  }
  Failing failing("CFURLCreateFromFSRef", 1, 3);
  EXPECT_EQ(url(there), "nil");
}

TEST_F(Files, TheOldWayLeadsToAnExistingFile) {
  std::string there = file("there");
  host::failAlways(refFromItem);
  EXPECT_EQ(url(there), "file://" + escapedRoot + "/there");
  EXPECT_THAT(operations(), ElementsAre(refFromItem, refFromItem, specFromItem));
  // Too long for the old form of a name, and nothing that Mac Roman knows.
  EXPECT_EQ(url(file(repeated("long ", 10))),
            "file://" + escapedRoot + "/" + repeated("long%20", 10));
  EXPECT_EQ(url(file("\xE2\x84\x95")), "file://" + escapedRoot + "/%E2%84%95");
}

TEST_F(Files, TheOldWayNeedsTheHostToKnowTheFile) {
  std::string there = file("there");
  host::failAlways(refFromItem);
  host::failCall(specFromItem);
  faults_start(FAULTS_THIS_THREAD);
  EXPECT_EQ(url(there), "nil");
  faults_stop();
  EXPECT_EQ(faults_calls("FSpMakeFSRef"), 0u);
}

TEST_F(Files, TheOldWayNeedsTheSystemToKnowTheFile) {
  std::string there = file("there");
  host::failAlways(refFromItem);
  Failing failing("FSpMakeFSRef", 1);
  EXPECT_EQ(url(there), "nil");
}

TEST_F(Files, TheOldWayToAMissingFileLeadsNowhere) {
  host::failAlways(refFromItem);
  EXPECT_EQ(url(root + "/missing"), "nil");
  EXPECT_EQ(url(root + "/none/missing"), "nil");
}

TEST_F(Files, ReferencesGoBackWithEveryFolderItem) {
  host::Object item = host::folderItem(file("there"));
  toCocoa(item);
  EXPECT_EQ(host::referenceCount(item), 1);
}

// ---- URL to FolderItem
// ---------------------------------------------------------------------------

TEST_F(Files, AnExistingFilesURLIsItsFolderItem) {
  EXPECT_EQ(pathOfText("file://" + testbed::percent_escaped(file("there.txt"))),
            root + "/there.txt");
  EXPECT_THAT(operations(), ElementsAre(itemFromParent));
  EXPECT_EQ(pathOfText("file://localhost" + escapedRoot + "/there.txt"), root + "/there.txt");
}

TEST_F(Files, AnExistingFoldersURLIsItsFolderItem) {
  folder("there");
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/there/"), root + "/there");
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/there"), root + "/there");
  EXPECT_THAT(operations(), ElementsAre(itemFromParent));
}

TEST_F(Files, AnExistingNameStandsInTheFolderItemAsItStandsOnDisk) {
  for (const char* name : {"caf\xC3\xA9 100%.txt", "cafe\xCC\x81", "\xF0\x9F\x98\x80", "a#b?c;d"})
    EXPECT_EQ(pathOfFile(file(name)), root + "/" + name);
}

TEST_F(Files, TheRootOfAVolumeGoesTheOldWay) {
  EXPECT_EQ(pathOfText("file:///"), "/");
  EXPECT_THAT(operations(), ElementsAre(itemFromSpec));
  std::string volume = folder("Volume");
  std::string onVolume = file("Volume/file");
  ASSERT_TRUE(files_declare_volume(volume));
  EXPECT_EQ(pathOfText("file://" + testbed::percent_escaped(volume) + "/"), volume);
  EXPECT_THAT(operations(), ElementsAre(itemFromSpec));
  EXPECT_EQ(pathOfText("file://" + testbed::percent_escaped(onVolume)), onVolume);
  EXPECT_THAT(operations(), ElementsAre(itemFromParent));
}

TEST_F(Files, TheRootOfAVolumeGoesTheOldWayWhateverIsSaidToBeItsParent) {
  rootsHaveParents = true;
  EXPECT_EQ(pathOfText("file:///"), "/");
  EXPECT_THAT(operations(), ElementsAre(itemFromSpec));
  rootsHaveParents = false;
}

TEST_F(Files, AMissingFilesURLIsAFolderItemForIt) {
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/missing%20file.app"),
            root + "/missing file.app");
  EXPECT_THAT(operations(), ElementsAre(itemFromParent));
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/missing.app/"), root + "/missing.app");
}

TEST_F(Files, AMissingNameKeepsItsLigatures) {
  EXPECT_EQ(url(root + "/\xEF\xAC\x81le"), "file://" + escapedRoot + "/%EF%AC%81le");
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/%EF%AC%81le"), root + "/\xEF\xAC\x81le");
}

TEST_F(Files, AMissingNameIsDecomposedForTheHost) {
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/caf%C3%A9"), root + "/cafe\xCC\x81");
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/cafe%CC%81"), root + "/cafe\xCC\x81");
}

TEST_F(Files, AMissingFileInAMissingFolderIsNoFolderItem) {
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/none/missing"), "nil");
  EXPECT_THAT(operations(), IsEmpty());
}

TEST_F(Files, AMissingNameIsCutAt255Units) {
  for (size_t length : {254, 255, 256, 300, 5000})
    EXPECT_EQ(pathOfText("file://" + escapedRoot + "/" + repeated("n", length)),
              root + "/" + repeated("n", std::min<size_t>(length, 255)))
        << length;
  // Decomposed it has two units a letter, and the cut parts the last from its mark.
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/" + repeated("%C3%A9", 200)),
            root + "/" + repeated("e\xCC\x81", 127) + "e");
}

TEST_F(Files, ACutThroughASurrogatePairIsForTheHostToJudge) {
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/" + repeated("n", 254) + "%F0%9F%98%80"), "nil");
  EXPECT_THAT(operations(), ElementsAre(itemFromParent));
}

TEST_F(Files, WhatIsNoFileIsNoFolderItem) {
  for (const char* text : {"http://localhost/tmp/file", "http://localhost/", "mailto:nobody",
                           "file://elsewhere/tmp/file", "data:,x"}) {
    EXPECT_EQ(pathOfText(text), "nil") << text;
    EXPECT_THAT(operations(), IsEmpty()) << text;
  }
}

// Which answers of the system lead where, for a file that is there: node and parent, name, then
// whether the parent is one.
TEST_F(Files, AnExistingFileOfWhichTheSystemKnowsTooLittleGoesTheOldWay) {
  std::string there = file("there");
  for (unsigned long nth : {1, 2, 3}) {
    Failing failing("FSGetCatalogInfo", nth);
    EXPECT_EQ(pathOfText("file://" + testbed::percent_escaped(there)), there) << nth;
    EXPECT_THAT(operations(), ElementsAre(itemFromSpec)) << nth;
  }
}

TEST_F(Files, AnExistingFileOfWhichTheSystemKnowsNothingIsNoFolderItem) {
  std::string there = file("there");
  for (unsigned long nth : {1, 2, 3}) {
    Failing failing("FSGetCatalogInfo", nth, 4);
    EXPECT_EQ(pathOfText("file://" + testbed::percent_escaped(there)), "nil") << nth;
    EXPECT_THAT(operations(), IsEmpty()) << nth;
  }
  Failing failing("FSGetCatalogInfo", 4);
  EXPECT_EQ(pathOfText("file:///"), "nil");
}

TEST_F(Files, AnExistingFileWithoutAReferenceIsTakenForAMissingOne) {
  std::string there = file("caf\xC3\xA9");
  {
    Failing failing("CFURLGetFSRef", 1);
    EXPECT_EQ(pathOfFile(there), root + "/cafe\xCC\x81");
    EXPECT_THAT(operations(), ElementsAre(itemFromParent));
  }
  Failing failing("CFURLGetFSRef", 1, 2);
  EXPECT_EQ(pathOfFile(there), "nil");
  EXPECT_THAT(operations(), IsEmpty());
}

TEST_F(Files, AMissingFileNeedsCoreFoundationForItsFolderAndName) {
  for (const char* function :
       {"CFURLCreateCopyDeletingLastPathComponent", "CFURLCopyLastPathComponent"}) {
    Failing failing(function, 1);
    EXPECT_EQ(pathOfText("file://" + escapedRoot + "/missing"), "nil") << function;
    EXPECT_THAT(operations(), IsEmpty()) << function;
  }
}

TEST_F(Files, AMissingNameThatCannotBeCopiedReachesTheHostAsItIs) {
  Failing failing("CFStringCreateMutableCopy", 1);
  EXPECT_EQ(pathOfText("file://" + escapedRoot + "/caf%C3%A9"), root + "/caf\xC3\xA9");
}

TEST_F(Files, WhatTheHostRefusesIsNoFolderItem) {
  file("there");
  for (const char* name : {"/there", "/missing"}) {
    host::failCall(itemFromParent);
    EXPECT_EQ(pathOfText("file://" + escapedRoot + name), "nil");
    EXPECT_THAT(operations(), ElementsAre(itemFromParent)) << "the old way was tried as well";
  }
  host::failCall(itemFromSpec);
  EXPECT_EQ(pathOfText("file:///"), "nil");
}

TEST_F(Files, AFolderItemComesWithOneReference) {
  file("there");
  for (const char* url : {"/there", "/missing"}) {
    host::Object item = toHost([NSURL
        URLWithString:[NSString stringWithUTF8String:("file://" + escapedRoot + url).c_str()]]);
    EXPECT_EQ(host::referenceCount(item), 1) << url;
  }
}

// ---- Both
// ----------------------------------------------------------------------------------------

TEST_F(Files, ComeBackAsTheyWent) {
  std::vector<std::string> paths = {"/",
                                    root,
                                    folder("Some App.app"),
                                    file("caf\xC3\xA9"),
                                    file("cafe\xCC\x81"),
                                    file("100% #1;?"),
                                    root + "/missing",
                                    root + "/cafe\xCC\x81 missing"};
  for (const std::string& path : paths) EXPECT_EQ(this->path(toCocoa(path)), path);
}

TEST_F(Files, NameTheBundleOfAnUpdaterBothWays) {
  ASSERT_TRUE(loadFramework());
  for (const char* name : {"Some App.app", "caf\xC3\xA9 100%.app"}) {
    std::string bundle = folder(name);
    host::Object updater = host::construct("SUUpdaterKVZ", "Constructor(Bundle as folderitem)",
                                           host::folderItem(bundle));
    auto item = host::get<host::Object>(updater, "hostBundle as folderitem");
    ASSERT_TRUE(item);
    EXPECT_EQ(host::path(item), bundle);
    EXPECT_EQ(host::referenceCount(item), 1);
  }
}

TEST_F(Files, OfAnUpdatersBundleMayBeMissing) {
  BundleHolder* holder = [BundleHolder new];
  host::Object updater = host::create("SUUpdaterKVZ");
  host::set(updater, "Handle", static_cast<int32_t>(reinterpret_cast<intptr_t>(holder)));
  auto bundle = [&](NSString* path) {
    holder->path = path;
    return host::get<host::Object>(updater, "hostBundle as folderitem");
  };
  auto below = [&](const char* name) {
    return [NSString stringWithFormat:@"%s/%s", root.c_str(), name];
  };
  EXPECT_FALSE(bundle(nil));
  EXPECT_FALSE(bundle(below("none/Missing.app")));
  EXPECT_EQ(host::path(bundle(below("Missing.app"))), root + "/Missing.app");
}

// ---- Operations that the host lacks
// ----------------------------------------------------------------

struct Lack {
  const char* name;
  const char* operation;
  bool toCocoa;
  const char* path; // below the root
  const char* whilePresent;
  unsigned lookupsPerUse; // while it is missing
};

class LackingFiles : public Files, public testing::WithParamInterface<Lack> {};

TEST_P(LackingFiles, AskForTheOperationAtEachUseUntilItIsThere) {
  const Lack& lack = GetParam();
  file("there");
  std::string path = lack.path ? root + "/" + lack.path : "/";
  std::string present = lack.whilePresent ? lack.whilePresent : path;
  auto use = [&] {
    return lack.toCocoa ? url(path) : pathOfText("file://" + testbed::percent_escaped(path));
  };
  host::resetCounts();
  host::makeAbsent(lack.operation);
  for (unsigned uses : {1, 2}) {
    EXPECT_EQ(use(), "nil");
    EXPECT_EQ(host::lookups(lack.operation), uses * lack.lookupsPerUse);
    EXPECT_EQ(host::calls(lack.operation), 0u);
  }
  host::makePresent(lack.operation);
  if (lack.toCocoa && !lack.whilePresent) present = "file://" + testbed::percent_escaped(path);
  for (unsigned uses : {1, 2}) {
    EXPECT_EQ(use(), present) << uses;
    EXPECT_EQ(host::lookups(lack.operation), 2 * lack.lookupsPerUse + 1);
  }
  EXPECT_EQ(host::lookups("REALFolderItemFromFSSpec"), 0u) << "that is not its name";
}

INSTANTIATE_TEST_SUITE_P(
    Operations, LackingFiles,
    testing::ValuesIn(std::vector<Lack>{
        // Asked for by the attempt for an existing file, and again by that for a missing one.
        {"Reference", "REALFSRefFromFolderItem", true, "missing", nullptr, 2},
        {"Spec", "REALFSSpecFromFolderItem", true, "none/missing", "nil", 1},
        {"ItemInItsFolder", "REALFolderItemFromParentFSRef", false, "there", nullptr, 1},
        {"MissingItemInItsFolder", "REALFolderItemFromParentFSRef", false, "missing", nullptr, 1},
        {"ItemBySpecification", "FolderItemFromFSSpec", false, nullptr, nullptr, 1},
    }),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Files, AHostWithoutReferencesGoesTheOldWay) {
  host::makeAbsent(refFromItem);
  EXPECT_EQ(url(file("there")), "file://" + escapedRoot + "/there");
  EXPECT_THAT(operations(), ElementsAre(specFromItem));
  EXPECT_EQ(host::lookups(refFromItem), 2u);
}

// ---- What is made on the way is released on every way
// ------------------------------------------------

struct Way {
  const char* name;
  bool toCocoa;
  const char* path; // below the root
  const char* failingFunction = nullptr;
  unsigned long nth = 0, count = 1;
};

class FileWays : public Files, public testing::WithParamInterface<Way> {};

TEST_P(FileWays, LeaveNothingBehind) {
  const Way& way = GetParam();
  file("there");
  std::string path = root + "/" + way.path;
  NSURL* url = [NSURL
      URLWithString:[NSString stringWithFormat:@"file://%s/%s", escapedRoot.c_str(), way.path]];
  host::Object item = host::folderItem(path);
  auto once = [&] {
    std::optional<Failing> failing;
    if (way.failingFunction) failing.emplace(way.failingFunction, way.nth, way.count);
    if (way.toCocoa) {
      toCocoa(item);
    } else {
      toHost(url);
    }
  };
  auto allocatedAfter = [&](int times) {
    for (int i = 0; i < times; ++i) {
      host::Pool pool;
      once();
    }
    log.clear();
    return mallinfo2().uordblks;
  };
  allocatedAfter(50);
  size_t before = allocatedAfter(50);
  size_t after = allocatedAfter(400);
  // The smallest of the objects on the way takes more than this.
  EXPECT_LT(after, before + 400 * 16);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, FileWays,
    testing::ValuesIn(std::vector<Way>{
        {"ExistingToCocoa", true, "there"},
        {"MissingToCocoa", true, "missing"},
        {"NowhereToCocoa", true, "none/missing"},
        {"OldWayToCocoa", true, "there", "CFURLCreateFromFSRef", 1, 2},
        {"NoURLToCocoa", true, "there", "CFURLCreateFromFSRef", 1, 3},
        {"NoNameToCocoa", true, "missing", "CFStringCreateWithCharacters", 1},
        {"NoCopyToCocoa", true, "missing", "CFStringCreateMutableCopy", 1},
        {"NotAppendedToCocoa", true, "missing", "CFURLCreateCopyAppendingPathComponent", 1},
        {"ExistingToHost", false, "there"},
        {"MissingToHost", false, "missing"},
        {"NowhereToHost", false, "none/missing"},
        {"OldWayToHost", false, "there", "FSGetCatalogInfo", 1},
        {"NothingKnownToHost", false, "there", "FSGetCatalogInfo", 1, 4},
        {"NoFolderToHost", false, "missing", "CFURLCreateCopyDeletingLastPathComponent", 1},
        {"NoNameToHost", false, "missing", "CFURLCopyLastPathComponent", 1},
        {"NoCopyToHost", false, "missing", "CFStringCreateMutableCopy", 1},
    }),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
