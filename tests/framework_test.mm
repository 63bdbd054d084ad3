// Loading the update framework from a folder of the host program's choice.

#include "session.h"

#include "testbed/cocoa/faults.h"
#include "testbed/companion/companion.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#include <filesystem>
#include <fstream>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

bool load(const host::Object& folder) {
  return host::callShared("SUUpdaterKVZ", "LoadFramework(path as folderitem) as boolean", folder)
      .as<bool>();
}
bool load(const std::string& path) { return load(host::folderItem(path)); }
bool loadVariant(const std::string& variant) { return session::loadFramework(variant); }
bool loaded() {
  return host::callShared("SUUpdaterKVZ", "IsFrameworkLoaded as boolean").as<bool>();
}
bool classExists(const char* name) { return objc_lookUpClass(name) != Nil; }
std::string classOfHandle(const host::Object& instance) {
  id object = reinterpret_cast<id>(host::get<int32_t>(instance, "Handle"));
  return object ? class_getName([object class]) : "nil";
}

// The messages that the plug-in sends while BODY runs, as "Class selector".
std::vector<std::string> messagesOf(const std::function<void()>& body) {
  std::vector<std::string> messages;
  faults_start(FAULTS_THIS_THREAD);
  faults_on_message(
      [](void* context, id receiver, SEL selector) {
        static_cast<std::vector<std::string>*>(context)->push_back(
            std::string(object_getClassName(receiver)) + " " + sel_getName(selector));
      },
      &messages);
  body();
  faults_stop();
  faults_on_message(nullptr, nullptr);
  return messages;
}

const companion_api* companion() { return companion_open("libtestbed_companion.so"); }

class Framework : public session::Test {};

TEST_P(Framework, IsNotLoadedBeforeAnybodyAsks) {
  start();
  EXPECT_FALSE(loaded());
  EXPECT_FALSE(classExists("SUUpdater"));
}

TEST_P(Framework, IsLoadedOnceAndOffersItsThreeClasses) {
  start();
  EXPECT_TRUE(loadVariant("Sparkle"));
  EXPECT_TRUE(loaded());
  EXPECT_EQ(classOfHandle(host::construct("SUUpdaterKVZ", "Constructor")), "SUUpdater");
  EXPECT_EQ(classOfHandle(host::construct("SUAppcastKVZ", "Constructor")), "SUAppcast");
  EXPECT_EQ(classOfHandle(host::construct("SUAppcastItemKVZ", "Constructor")), "SUAppcastItem");
}

TEST_P(Framework, IsNotLoadedFromNoFolder) {
  start();
  EXPECT_FALSE(load(host::Object()));
  EXPECT_FALSE(loaded());
  EXPECT_THAT(session::takeLog(), IsEmpty());
  EXPECT_TRUE(loadVariant("Sparkle")) << "a failure must not stand in the way of a success";
}

TEST_P(Framework, WithoutItemsIsLoadedAllTheSameAtTheSecondAttempt) {
  start();
  EXPECT_FALSE(loadVariant("WithoutItem"));
  EXPECT_TRUE(loaded());
  EXPECT_TRUE(loadVariant("WithoutItem"));
  EXPECT_TRUE(load(host::Object()));
  EXPECT_EQ(classOfHandle(host::construct("SUUpdaterKVZ", "Constructor")), "SUUpdater");
  EXPECT_EQ(classOfHandle(host::construct("SUAppcastItemKVZ", "Constructor")), "nil");
  EXPECT_TRUE(loadVariant("Sparkle"));
  EXPECT_EQ(classOfHandle(host::construct("SUAppcastItemKVZ", "Constructor")), "nil");
}

TEST_P(Framework, LoadedOnceIsNotLookedForAgain) {
  start();
  ASSERT_TRUE(loadVariant("Sparkle"));
  host::Object elsewhere = host::folderItem(session::frameworkPath("WithoutClasses"));
  std::vector<std::string> messages = messagesOf([&] {
    host::startLog();
    EXPECT_TRUE(load(elsewhere));
    EXPECT_TRUE(load(host::Object()));
    EXPECT_TRUE(load("/none/at/all"));
    EXPECT_THAT(host::stopLog(), IsEmpty()) << "the folder was looked at";
  });
  EXPECT_THAT(messages, IsEmpty());
  EXPECT_FALSE(classExists("SomethingElse"));
  EXPECT_TRUE(loaded());
}

INSTANTIATE_TEST_SUITE_P(Hosts, Framework, session::everyHost(), session::hostName);

// ---- Folders that are no framework
// -----------------------------------------------------------------

struct Folder {
  const char* name;
  std::string (*make)();
  bool reachesCocoa; // whether the system is asked for a bundle there
};

std::string inFolder(const std::string& name) {
  return std::string(std::filesystem::canonical(session::folder())) + "/" + name;
}

class NoFramework : public session::TestBase, public testing::WithParamInterface<Folder> {};

TEST_P(NoFramework, IsRefusedSilently) {
  session::start("2013.03");
  std::string path = GetParam().make();
  session::takeLog();
  std::vector<std::string> messages = messagesOf([&] { EXPECT_FALSE(load(path)); });
  EXPECT_EQ(testing::Matches(testing::Contains("NSBundle bundleWithPath:"))(messages),
            GetParam().reachesCocoa);
  EXPECT_THAT(messages, testing::Not(testing::Contains("NSBundle classNamed:")));
  EXPECT_FALSE(loaded());
  EXPECT_EQ(host::pendingExceptions(), 0u);
  // What the system itself says about a broken bundle is its own business.
  EXPECT_THAT(session::takeLog(), testing::Not(testing::Contains(testing::HasSubstr("Info:"))));
  EXPECT_TRUE(loadVariant("Sparkle"));
}

INSTANTIATE_TEST_SUITE_P(
    Folders, NoFramework,
    testing::ValuesIn(std::vector<Folder>{
        {"Missing", [] { return inFolder("Missing.framework"); }, true},
        {"InAMissingFolder", [] { return inFolder("none/Sparkle.framework"); }, false},
        {"File",
         [] {
           std::ofstream(inFolder("file")) << "no bundle";
           return inFolder("file");
         },
         true},
        {"EmptyFolder",
         [] {
           std::filesystem::create_directory(inFolder("empty"));
           return inFolder("empty");
         },
         true},
        {"DamagedProgram", [] { return session::frameworkPath("Broken"); }, true},
    }),
    [](const auto& info) { return std::string(info.param.name); });

class FrameworkFolder : public session::TestBase {
protected:
  void SetUp() override {
    session::TestBase::SetUp();
    session::start("2013.03");
  }
};

TEST_F(FrameworkFolder, ThatLoadsWithoutItsClassesIsNoFramework) {
  EXPECT_FALSE(loadVariant("WithoutClasses"));
  EXPECT_TRUE(classExists("SomethingElse"));
  EXPECT_FALSE(loaded());
  EXPECT_TRUE(loadVariant("Sparkle"));
}

TEST_F(FrameworkFolder, IsAskedForItsClassesInOrder) {
  host::Object folder = host::folderItem(session::frameworkPath());
  loaded(); // what comes once is over
  std::vector<std::string> messages = messagesOf([&] { EXPECT_TRUE(load(folder)); });
  std::erase_if(messages,
                [](const std::string& message) { return message.ends_with("autorelease"); });
  EXPECT_THAT(messages,
              ElementsAre("NSBundle bundleWithPath:", "NSBundle load",
                          "NSBundle classNamed:", "NSBundle classNamed:", "NSBundle classNamed:"));
}

TEST_F(FrameworkFolder, MayHaveAnyName) {
  std::string path = inFolder("Caf\xC3\xA9 100% #1.framework");
  std::filesystem::copy(session::frameworkPath(), path,
                        std::filesystem::copy_options::recursive |
                            std::filesystem::copy_options::copy_symlinks);
  EXPECT_TRUE(load(path));
}

TEST_F(FrameworkFolder, MayBeALink) {
  std::filesystem::create_symlink(session::frameworkPath(), inFolder("Link.framework"));
  EXPECT_TRUE(load(inFolder("Link.framework")));
}

TEST_F(FrameworkFolder, WithoutAPathIsNoFramework) {
  host::Object folder = host::folderItem(session::frameworkPath());
  for (const char* function : {"CFURLCopyFileSystemPath", "CFURLCreateFromFSRef"}) {
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_call(function, 1);
    // Without a URL of its own, the folder still has one in its folder.
    EXPECT_EQ(load(folder), function == std::string_view("CFURLCreateFromFSRef")) << function;
    faults_stop();
    EXPECT_EQ(faults_fired(), 1u);
  }
}

TEST_F(FrameworkFolder, IsGivenBackAfterUse) {
  host::Object folder = host::folderItem(session::frameworkPath("WithoutClasses"));
  load(folder);
  EXPECT_EQ(host::referenceCount(folder), 1);
}

// ---- Exceptions on the way
// -------------------------------------------------------------------------

TEST_F(FrameworkFolder, ThatRaisesWhileItLoadsIsReportedOnceAndIsNoFramework) {
  session::takeLog();
  EXPECT_FALSE(loadVariant("Raising"));
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->count, 1u);
  EXPECT_EQ(raised->className, "NSExceptionKVZ");
  EXPECT_EQ(raised->message, "this framework does not want to be loaded");
  EXPECT_THAT(session::takeLog(), ElementsAre(testing::HasSubstr("A SULoadFailed: ")));
  EXPECT_FALSE(loaded());
  EXPECT_TRUE(loadVariant("Sparkle"));
}

// How far the load came decides what it left behind, exception or not.
TEST_F(FrameworkFolder, ThatRaisesAmidItsClassesIsAsLoadedAsItCame) {
  host::Object folder = host::folderItem(session::frameworkPath());
  loaded();
  std::vector<std::string> messages =
      messagesOf([&] { EXPECT_FALSE(loadVariant("WithoutClasses")); });
  auto firstClass = std::find(messages.begin(), messages.end(), "NSBundle classNamed:");
  ASSERT_NE(firstClass, messages.end());
  auto number = static_cast<unsigned long>(firstClass - messages.begin()) + 1;

  auto failing = [&](unsigned long message) {
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_message(message, FAULTS_NSEXCEPTION);
    bool result = load(folder);
    faults_stop();
    EXPECT_EQ(faults_fired(), 1u);
    auto raised = host::takeException();
    EXPECT_TRUE(raised && raised->count == 1 && raised->className == "NSExceptionKVZ");
    return result;
  };
  EXPECT_FALSE(failing(number));
  EXPECT_FALSE(loaded());
  EXPECT_FALSE(failing(number + 1));
  EXPECT_TRUE(loaded()) << "the updater's class was found";
  EXPECT_TRUE(load(folder));
  EXPECT_EQ(classOfHandle(host::construct("SUAppcastKVZ", "Constructor")), "nil");
}

// ---- What comes once: the companion is prepared, its registry fetched
// --------------------------------

struct FirstCall {
  const char* name;
  void (*call)();
};
const FirstCall firstCalls[] = {
    {"LoadFramework", [] { load(host::Object()); }},
    {"IsFrameworkLoaded", [] { loaded(); }},
    {"SUUpdaterKVZ", [] { host::create("SUUpdaterKVZ"); }},
    {"SUAppcastKVZ", [] { host::create("SUAppcastKVZ"); }},
    {"SUAppcastItemKVZ", [] { host::create("SUAppcastItemKVZ"); }},
    {"SUVersionComparisonKVZ", [] { host::create("SUVersionComparisonKVZ"); }},
};

class FirstUse : public session::TestBase, public testing::WithParamInterface<FirstCall> {};

TEST_P(FirstUse, FetchesTheRegistryAndPreparesTheCompanionOnce) {
  session::start("2013.03");
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 0u);
  EXPECT_THAT(
      messagesOf(GetParam().call),
      ElementsAre("NSException respondsToSelector:", "NSException GetInstancesDictionaryKVZ",
                  "NSException respondsToSelector:", "NSException PrepareNSExceptionKVZ"));
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 1u);
  for (const FirstCall& next : firstCalls) EXPECT_THAT(messagesOf(next.call), IsEmpty());
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 1u);
}

TEST_P(FirstUse, AsksAgainAndAgainWhereThereIsNoCompanion) {
  session::start("2013.03", {.companion = false});
  // Destroying an instance may ask once more.
  auto asks = testing::AllOf(testing::SizeIs(testing::Ge(2u)),
                             testing::Each("NSException respondsToSelector:"));
  EXPECT_THAT(messagesOf(GetParam().call), asks);
  EXPECT_THAT(messagesOf(GetParam().call), asks);
}

TEST_P(FirstUse, DoesWithoutTheRegistry) {
  companion()->provide(COMPANION_REGISTRY, 0);
  session::start("2013.03");
  GetParam().call();
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 1u);
  // Without it every comparison still works, and nothing is entered anywhere.
  host::Object comparison = host::construct("SUVersionComparisonKVZ", "Constructor");
  EXPECT_NE(host::get<int32_t>(comparison, "Handle"), 0);
  host::call(comparison, "Destructor");
  EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 0u);
}

TEST_P(FirstUse, DoesWithoutThePreparation) {
  companion()->provide(COMPANION_PREPARE, 0);
  session::start("2013.03");
  GetParam().call();
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 0u);
  host::Object comparison = host::construct("SUVersionComparisonKVZ", "Constructor");
  EXPECT_EQ(companion()->count(COMPANION_REGISTERED), 1u);
}

INSTANTIATE_TEST_SUITE_P(Calls, FirstUse, testing::ValuesIn(firstCalls),
                         [](const auto& info) { return std::string(info.param.name); });

class Alone : public session::Test {};

TEST_P(Alone, TheFrameworkIsLoadedAndUsedWithoutACompanion) {
  session::start(GetParam(), {.companion = false});
  EXPECT_FALSE(loaded());
  EXPECT_FALSE(load(host::Object()));
  EXPECT_TRUE(loadVariant("Sparkle"));
  host::Object updater = host::construct("SUUpdaterKVZ", "Constructor");
  EXPECT_EQ(classOfHandle(updater), "SUUpdater");
}

INSTANTIATE_TEST_SUITE_P(Hosts, Alone, session::everyHost(), session::hostName);

} // namespace
