// How failures reach the host program: exceptions of the host's own classes, Cocoa exceptions as
// NSExceptionKVZ, and, out of what the framework calls, a line in the system log and nothing else.

#include "plugin_objects.h"
#include "session.h"
#include "unreported.h"

#include "testbed/cocoa/faults.h"
#include "testbed/companion/companion.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>

#include <functional>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

// Plays every object of the framework, and a dictionary in it. Answers something to each message,
// or throws what it is told to.
@interface Player : NSObject {
@public
  id thrown;
}
@end

@interface Odd : NSObject // no NSException
@end
@implementation Odd
- (NSString*)description {
  return @"something odd";
}
@end

@interface SpecialException : NSException
@end
@implementation SpecialException
@end

#define ANSWER(type, declaration, value)                                                           \
  -(type)declaration {                                                                             \
    if (thrown) @throw thrown;                                                                     \
    return value;                                                                                  \
  }

@implementation Player
ANSWER(id, title, @"title")
ANSWER(id, versionString, @"1.0")
ANSWER(id, displayVersionString, @"1")
ANSWER(id, date, [NSDate dateWithTimeIntervalSinceReferenceDate:0])
ANSWER(id, itemDescription, @"description")
ANSWER(id, releaseNotesURL, [NSURL URLWithString:@"http://localhost/notes"])
ANSWER(id, fileURL, [NSURL URLWithString:@"http://localhost/file"])
ANSWER(id, DSASignature, @"signature")
ANSWER(id, minimumSystemVersion, @"10.6")
ANSWER(id, propertiesDictionary,
       ([NSDictionary
           dictionaryWithObjectsAndKeys:
               [NSArray arrayWithObjects:@"a", [NSNumber numberWithInt:1], [NSDate date], nil],
               @"array", [NSDictionary dictionaryWithObject:@"in" forKey:@"key"], @"dictionary",
               [NSURL URLWithString:@"http://localhost/"], @"url",
               [NSData dataWithBytes:"abc" length:3], @"data", nil]))

ANSWER(id, feedURL, [NSURL URLWithString:@"http://localhost/feed"])
ANSWER(BOOL, automaticallyChecksForUpdates, YES)
ANSWER(BOOL, sendsSystemProfile, YES)
ANSWER(BOOL, automaticallyDownloadsUpdates, YES)
ANSWER(BOOL, updateInProgress, YES)
ANSWER(double, updateCheckInterval, 3600)
ANSWER(id, lastUpdateCheckDate, [NSDate dateWithTimeIntervalSinceReferenceDate:0])
ANSWER(id, hostBundle, [NSBundle bundleWithPath:@"/"])
ANSWER(void, checkForUpdatesInBackground, )
ANSWER(void, checkForUpdateInformation, )
ANSWER(void, resetUpdateCycle, )
ANSWER(void, checkForUpdates : (id)sender, (void)sender)
ANSWER(void, setFeedURL : (id)value, (void)value)
ANSWER(void, setAutomaticallyChecksForUpdates : (BOOL)value, (void)value)
ANSWER(void, setSendsSystemProfile : (BOOL)value, (void)value)
ANSWER(void, setAutomaticallyDownloadsUpdates : (BOOL)value, (void)value)
ANSWER(void, setUpdateCheckInterval : (double)value, (void)value)
ANSWER(void, setDelegate : (id)value, (void)value)

ANSWER(id, items, ([NSArray arrayWithObjects:@"first", @"second", nil]))
ANSWER(id, valueForKey
       : (NSString*)key, [key isEqual:@"incrementalData"]
                             ? (id)[NSData dataWithBytes:"abc" length:3]
                             : (id) @"agent")
ANSWER(void, setUserAgentString : (id)value, (void)value)
ANSWER(void, fetchAppcastFromURL : (id)value, (void)value)

ANSWER(void, invoke, )
ANSWER(void, clearTarget, )
@end

namespace {

int32_t handleOf(id object) { return static_cast<int32_t>(reinterpret_cast<intptr_t>(object)); }
id objectIn(const host::Object& instance) {
  return reinterpret_cast<id>(host::get<int32_t>(instance, "Handle"));
}
id delegateOf(const host::Object& updater) { return static_cast<id*>(host::data(updater))[1]; }
const companion_api* companion() { return companion_open("libtestbed_companion.so"); }

// The lines of the system log without what the log puts before them.
std::vector<std::string> takeLog() {
  std::vector<std::string> lines = session::takeLog();
  for (std::string& line : lines) {
    size_t end = line.find("] ");
    if (end != std::string::npos) line.erase(0, end + 2);
  }
  return lines;
}

std::string utf8(NSString* text) { return [text UTF8String]; }

// ---- Members
// ---------------------------------------------------------------------------------------

// How a test uses one member.
struct Member {
  const char* className;
  const char* declaration;
  enum Kind { get, set, call, shared, create, destroy } kind = get;
  const char* zero = "nil"; // what it answers on failure; null: whatever there was by then
  host::Value (*argument)() = nullptr;
  bool messagesHandle = true; // the first message goes to what Handle holds
};

std::string nameOf(const Member& member) {
  static const char* const kinds[] = {"get", "set", "call", "shared", "create", "destroy"};
  std::string name =
      std::string(kinds[member.kind]) + "_" + member.className + "_" + member.declaration;
  name.erase(std::find(name.begin(), name.end(), ' '), name.end());
  std::erase_if(name, [](char c) { return !isalnum(static_cast<unsigned char>(c)) && c != '_'; });
  return name;
}
void PrintTo(const Member& member, std::ostream* out) { *out << nameOf(member); }

host::Value url() { return "http://localhost/"; }
host::Value yes() { return true; }
host::Value hour() { return 3600.0; }
host::Value program() { return host::folderItem(session::program()); }
host::Value framework() { return host::folderItem(session::frameworkPath()); }

const char* const comparison = "SUVersionComparisonKVZ";
const char* const item = "SUAppcastItemKVZ";
const char* const updater = "SUUpdaterKVZ";
const char* const appcast = "SUAppcastKVZ";

const Member members[] = {
    {comparison, "constructor slot", Member::create, "nil", nullptr, false},
    {comparison, "destructor slot", Member::destroy, "nil", nullptr, false},
    {comparison, "Constructor", Member::call, "nil", nullptr, false},
    {comparison, "Destructor", Member::call},

    {item, "constructor slot", Member::create, "nil", nullptr, false},
    {item, "destructor slot", Member::destroy, "nil", nullptr, false},
    {item, "title as string"},
    {item, "versionString as string"},
    {item, "displayVersionString as string"},
    {item, "date as date"},
    {item, "itemDescription as string"},
    {item, "releaseNotesURL as string"},
    {item, "fileURL as string"},
    {item, "DSASignature as string"},
    {item, "minimumSystemVersion as string"},
    {item, "Constructor", Member::call, "nil", nullptr, false},
    {item, "propertiesDictionary as dictionary"},

    {updater, "constructor slot", Member::create, "nil", nullptr, false},
    {updater, "destructor slot", Member::destroy, "nil", nullptr, false},
    {updater, "InvokeUpdate", Member::call},
    {updater, "feedURL as string"},
    {updater, "feedURL as string", Member::set, "nil", url},
    {updater, "automaticallyChecksForUpdates as boolean", Member::get, "false"},
    {updater, "automaticallyChecksForUpdates as boolean", Member::set, "nil", yes},
    {updater, "sendsSystemProfile as boolean", Member::get, "false"},
    {updater, "sendsSystemProfile as boolean", Member::set, "nil", yes},
    {updater, "automaticallyDownloadsUpdates as boolean", Member::get, "false"},
    {updater, "automaticallyDownloadsUpdates as boolean", Member::set, "nil", yes},
    {updater, "checkForUpdatesInBackground", Member::call},
    {updater, "checkForUpdateInformation", Member::call},
    {updater, "resetUpdateCycle", Member::call},
    {updater, "updateInProgress as boolean", Member::get, "false"},
    {updater, "updateCheckInterval as double", Member::get, "0"},
    {updater, "updateCheckInterval as double", Member::set, "nil", hour},
    {updater, "lastUpdateCheckDate as date"},
    {updater, "checkForUpdates", Member::call},
    {updater, "Constructor", Member::call, "nil", nullptr, false},
    {updater, "Constructor(Bundle as folderitem)", Member::call, "nil", program, false},
    {updater, "hostBundle as folderitem"},
    {updater, "LoadFramework(path as folderitem) as boolean", Member::shared, "false", framework,
     false},
    // True where the framework is loaded, whatever happens on the way.
    {updater, "IsFrameworkLoaded as boolean", Member::shared, nullptr, nullptr, false},

    {appcast, "constructor slot", Member::create, "nil", nullptr, false},
    {appcast, "destructor slot", Member::destroy, "nil", nullptr, false},
    {appcast, "UserAgentString as string"},
    {appcast, "UserAgentString as string", Member::set, "nil", url},
    {appcast, "fetchAppcastFromURL(url as string)", Member::call, "nil", url},
    {appcast, "Constructor", Member::call, "nil", nullptr, false},
    // The items before the one that failed.
    {appcast, "items as SUAppcastItemKVZ()", Member::get, nullptr},
    {appcast, "incrementalData as memoryblock"},
};

// One use of a member on an instance of its own, around a Player where the member wants one.
class Use {
public:
  explicit Use(const Member& member) : member_(member), player_([Player new]) {
    if (member.kind == Member::shared || member.kind == Member::create) return;
    instance_ = host::create(member.className);
    std::string_view declaration = member.declaration;
    if (declaration.starts_with("Constructor")) {
      if (objc_getClass("SUUpdater")) session::spareUpdater();
      return;
    }
    if (declaration == "InvokeUpdate") {
      host::call(instance_, "Constructor");
      id delegate = delegateOf(instance_);
      [delegate updater:nil shouldPostponeRelaunchForUpdate:nil untilInvoking:player_];
    }
    // The instance takes over the reference; one stays here.
    host::set(instance_, "Handle", handleOf([player_ retain]));
  }
  ~Use() {
    throwing(nil);
    instance_.reset();
    [player_ release];
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  void throwing(id object) { player_->thrown = object; }

  // What the member answers, printed and given back; what is thrown out of it goes to THROWN.
  std::string operator()(host::Thrown* thrown = nullptr) {
    std::string answer;
    host::Value argument = member_.argument ? member_.argument() : host::Value();
    host::Thrown out = host::catching([&] {
      host::Value value;
      switch (member_.kind) {
      case Member::get:
        value = host::getValue(instance_, member_.declaration);
        break;
      case Member::set:
        host::set(instance_, member_.declaration, argument);
        break;
      case Member::call:
        if (member_.argument) {
          value = host::call(instance_, member_.declaration, argument);
        } else {
          value = host::call(instance_, member_.declaration);
        }
        break;
      case Member::shared:
        if (member_.argument) {
          value = host::callShared(member_.className, member_.declaration, argument);
        } else {
          value = host::callShared(member_.className, member_.declaration);
        }
        break;
      case Member::create:
        instance_ = host::create(member_.className);
        break;
      case Member::destroy:
        instance_.reset();
        break;
      }
      answer = host::print(value);
    });
    if (thrown) *thrown = out;
    return answer;
  }

private:
  const Member& member_;
  Player* player_;
  host::Object instance_;
};

class EveryMember : public session::TestBase, public testing::WithParamInterface<Member> {
protected:
  void SetUp() override {
    session::TestBase::SetUp();
    session::start("2013.03");
    session::takeLog();
  }

  void expectZero(const std::string& answer) {
    if (GetParam().zero) EXPECT_EQ(answer, GetParam().zero);
  }
  // One exception is pending, and the log has its line.
  void expectRaised(const std::string& message, const std::string& line) {
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->count, 1u);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    EXPECT_EQ(raised->message, message);
    EXPECT_EQ(raised->errorNumber, 0);
    EXPECT_EQ(host::referenceCount(raised->object), 1);
    EXPECT_THAT(takeLog(), ElementsAre(line));
  }
};

class MemberOfAThrower : public EveryMember {};

TEST_P(MemberOfAThrower, RaisesWhatItsObjectThrowsAndAnswersZero) {
  NSException* exception =
      [NSException exceptionWithName:@"Trouble"
                              reason:@"100% broken: %@ %s %n"
                            userInfo:[NSDictionary dictionaryWithObject:@"value" forKey:@"key"]];
  Use use(GetParam());
  use.throwing(exception);
  host::Thrown thrown;
  std::string answer = use(&thrown);
  use.throwing(nil);
  EXPECT_FALSE(thrown);
  if (GetParam().zero)
    EXPECT_EQ(answer, GetParam().zero);
  else
    EXPECT_EQ(answer.substr(0, 5), "Array") << "an array in any case";
  expectRaised("100% broken: %@ %s %n",
               "A Trouble: 100% broken: %@ %s %n, Info: {key = value; }\n");
}

TEST_P(MemberOfAThrower, RaisesSubclassesOfNSExceptionToo) {
  NSException* exception = [[[SpecialException alloc] initWithName:@"Special"
                                                            reason:@"of its own"
                                                          userInfo:nil] autorelease];
  Use use(GetParam());
  use.throwing(exception);
  expectZero(use());
  use.throwing(nil);
  expectRaised("of its own", "A Special: of its own, Info: (null)\n");
}

TEST_P(MemberOfAThrower, PassesOnWhatIsNoException) {
  for (id object in [NSArray arrayWithObjects:[[Odd new] autorelease], @"a mere string", nil]) {
    Use use(GetParam());
    use.throwing(object);
    host::Thrown thrown;
    use(&thrown);
    use.throwing(nil);
    EXPECT_EQ(thrown.object, static_cast<void*>(object));
    EXPECT_EQ(host::pendingExceptions(), 0u);
    EXPECT_THAT(takeLog(), IsEmpty());
  }
}

TEST_P(MemberOfAThrower, WorksAgainAfterwards) {
  Use use(GetParam());
  use.throwing([NSException exceptionWithName:@"Once" reason:@"once" userInfo:nil]);
  use();
  use.throwing(nil);
  EXPECT_TRUE(host::takeException());
  std::string answer = use();
  EXPECT_FALSE(host::takeException());
  if (GetParam().kind == Member::get) EXPECT_NE(answer, GetParam().zero ? GetParam().zero : "nil");
}

std::vector<Member> membersOfHandle() {
  std::vector<Member> chosen(std::begin(members), std::end(members));
  std::erase_if(chosen, [](const Member& member) { return !member.messagesHandle; });
  return chosen;
}

INSTANTIATE_TEST_SUITE_P(Members, MemberOfAThrower, testing::ValuesIn(membersOfHandle()),
                         [](const auto& info) { return nameOf(info.param); });

// Every single message that a member sends, to whatever it sends it.
class MessageOfAMember : public EveryMember {
protected:
  void SetUp() override {
    EveryMember::SetUp();
    bool constructs = std::string_view(GetParam().declaration).starts_with("Constructor");
    if (constructs) ASSERT_TRUE(session::loadFramework());
    session::takeLog();
  }

  // Uses the member once for each of its messages, which throws, and hands what came of it to
  // JUDGE.
  void forEachMessage(
      faults_thrown what,
      const std::function<void(unsigned long, const std::string&, const host::Thrown&)>& judge) {
    unsigned failed = 0;
    // What is done only once has gone wrong each time before: a second round sees it go right
    // first.
    for (int round = 0; round < 2; ++round) {
      for (unsigned long nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << "message " << nth);
        host::Pool pool;
        // What an ended destructor has not got to is lost: nothing calls it again.
        std::optional<session::Unreported> lost;
        if (GetParam().kind == Member::destroy) lost.emplace();
        Use use(GetParam());
        host::Thrown thrown;
        faults_start(FAULTS_THIS_THREAD);
        faults_fail_message(nth, what);
        std::string answer = use(&thrown);
        faults_stop();
        if (faults_fired() == 0) {
          EXPECT_FALSE(thrown);
          host::takeException(); // a use of its own, without a failure
          session::takeLog();
          break;
        }
        ++failed;
        judge(nth, answer, thrown);
        if (HasFatalFailure()) return;
      }
    }
    EXPECT_GT(failed, 0u) << "it sends no message";
  }
};

TEST_P(MessageOfAMember, ThatThrowsIsRaisedOnceAfterOneLogLine) {
  forEachMessage(FAULTS_NSEXCEPTION, [&](unsigned long nth, const std::string& answer,
                                         const host::Thrown& thrown) {
    EXPECT_FALSE(thrown);
    expectZero(answer);
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->count, 1u);
    EXPECT_EQ(raised->className, "NSExceptionKVZ");
    std::string message = raised->message.value_or("nil");
    EXPECT_THAT(message, testing::StartsWith("message " + std::to_string(nth) + ": "));
    EXPECT_THAT(takeLog(), ElementsAre("A TestbedFault: " + message + ", Info: (null)\n"));
  });
}

TEST_P(MessageOfAMember, ThatThrowsSomethingElseLetsItPass) {
  forEachMessage(FAULTS_OTHER_OBJECT,
                 [&](unsigned long, const std::string&, const host::Thrown& thrown) {
                   EXPECT_EQ(thrown.text, "an object that is no NSException");
                   EXPECT_EQ(host::pendingExceptions(), 0u);
                   EXPECT_THAT(takeLog(), IsEmpty());
                 });
}

INSTANTIATE_TEST_SUITE_P(Members, MessageOfAMember, testing::ValuesIn(members),
                         [](const auto& info) { return nameOf(info.param); });

TEST(MemberTable, HasEveryMemberThatIsRegisteredButTheDummy) {
  session::start("2013.03");
  std::set<std::string> known, registered;
  for (const Member& member : members) known.insert(nameOf(member));
  for (const char* className : {comparison, item, updater, appcast}) {
    const host::Registered* type = host::registered(className);
    for (auto table : {host::Registered::methods, host::Registered::sharedMethods}) {
      host::Registered::Entries entries = type->table(table);
      for (uint32_t i = 0; i < entries.count; ++i) {
        auto* declaration = reinterpret_cast<const char*>(entries[i][2]);
        if (std::string_view(declaration).starts_with("_exception")) continue;
        bool answers = std::string_view(declaration).find(" as ") != std::string_view::npos &&
                       std::string_view(declaration).find(')') == std::string_view::npos;
        bool array = std::string_view(declaration).ends_with("()");
        Member::Kind kind = table == host::Registered::sharedMethods ? Member::shared
                            : answers || array                       ? Member::get
                                                                     : Member::call;
        registered.insert(nameOf({className, declaration, kind}));
        if (entries[i][1]) registered.insert(nameOf({className, declaration, Member::set}));
      }
    }
    registered.insert(nameOf({className, "constructor slot", Member::create}));
    registered.insert(nameOf({className, "destructor slot", Member::destroy}));
  }
  EXPECT_EQ(known, registered);
}

// ---- What is said to Cocoa and to the companion
// ------------------------------------------------------

class Reporting : public session::Test {
protected:
  // A title whose object throws, and what became of it.
  std::string title(id thrown, host::Thrown* out = nullptr) {
    static const Member member = {item, "title as string"};
    Use use(member);
    use.throwing(thrown);
    std::string answer = use(out);
    use.throwing(nil);
    return answer;
  }
  NSException* trouble() {
    return [NSException exceptionWithName:@"Trouble" reason:@"in the framework" userInfo:nil];
  }
  static constexpr const char* line = "A Trouble: in the framework, Info: (null)\n";
};

TEST_P(Reporting, RaisesAnExceptionOfTheCompanion) {
  start();
  NSDictionary* info = [NSDictionary dictionaryWithObject:@"value" forKey:@"key"];
  EXPECT_EQ(title([NSException exceptionWithName:@"Trouble"
                                          reason:@"in the framework"
                                        userInfo:info]),
            "nil");
  EXPECT_THAT(takeLog(), ElementsAre("A Trouble: in the framework, Info: {key = value; }\n"));
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->count, 1u);
  EXPECT_EQ(raised->className, "NSExceptionKVZ");
  EXPECT_EQ(raised->message, "in the framework");
  EXPECT_EQ(host::get<std::string>(raised->object, "name as string"), "Trouble");
  EXPECT_EQ(host::get<std::string>(raised->object, "reason as string"), "in the framework");
  auto* held = static_cast<NSException*>(objectIn(raised->object));
  EXPECT_TRUE([[held userInfo] isEqual:info]);
  EXPECT_EQ(host::referenceCount(raised->object), 1);
}

TEST_P(Reporting, AsksForNameReasonAndInfoInOrderThenForTheHostsObject) {
  start();
  title(trouble());
  host::takeException();
  std::vector<std::string> selectors;
  faults_start(FAULTS_THIS_THREAD);
  faults_on_message(
      [](void* context, id, SEL selector) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(sel_getName(selector));
      },
      &selectors);
  host::startLog();
  title(trouble());
  faults_stop();
  faults_on_message(nullptr, nullptr);
  EXPECT_THAT(selectors, ElementsAre("title", "name", "reason", "userInfo", "NewNSExceptionKVZ:",
                                     testing::_)); // the destructor's release
  std::vector<std::string> operations;
  for (const host::LogEntry& entry : host::stopLog())
    if (entry.name.find("Exception") != std::string::npos || entry.name == "REALUnlockObject")
      operations.push_back(entry.name);
  EXPECT_THAT(operations, ElementsAre("RuntimeRaiseException", "REALUnlockObject"));
  host::takeException();
}

TEST_P(Reporting, PrintsWhatAnExceptionLacks) {
  start();
  title([[[NSException alloc] initWithName:nil reason:nil userInfo:nil] autorelease]);
  auto raised = host::takeException();
  EXPECT_TRUE(raised);
  std::vector<std::string> log = takeLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_THAT(log[0], testing::MatchesRegex("A .*: .*, Info: \\(null\\)\n"));
}

TEST_P(Reporting, OnlyLogsWhereTheCompanionHasNoObject) {
  start();
  companion()->refuse_exceptions(1);
  EXPECT_EQ(title(trouble()), "nil");
  EXPECT_THAT(takeLog(), ElementsAre(line));
  EXPECT_FALSE(host::takeException());
  companion()->refuse_exceptions(0);
  title(trouble());
  EXPECT_TRUE(host::takeException());
}

TEST_P(Reporting, OnlyLogsWhereTheCompanionHasNoClass) {
  companion()->provide(COMPANION_EXCEPTION_CLASS, 0);
  start();
  EXPECT_EQ(title(trouble()), "nil");
  EXPECT_THAT(takeLog(), ElementsAre(line));
  EXPECT_FALSE(host::takeException());
}

void expectUnrecognised(const host::Thrown& thrown) {
  ASSERT_TRUE(thrown);
  EXPECT_EQ(utf8([static_cast<NSException*>(thrown.object) name]), "NSInvalidArgumentException");
  EXPECT_THAT(utf8([static_cast<NSException*>(thrown.object) reason]),
              testing::HasSubstr("NewNSExceptionKVZ:"));
}

TEST_P(Reporting, NeedsTheCompanion) {
  start({.companion = false});
  host::Thrown thrown;
  title(trouble(), &thrown);
  expectUnrecognised(thrown);
  EXPECT_THAT(takeLog(), ElementsAre(line));
  EXPECT_FALSE(host::takeException());
}

TEST_P(Reporting, NeedsTheCompanionsMessage) {
  companion()->provide(COMPANION_NEW_EXCEPTION, 0);
  start();
  host::Thrown thrown;
  title(trouble(), &thrown);
  expectUnrecognised(thrown);
  EXPECT_THAT(takeLog(), ElementsAre(line));
  EXPECT_FALSE(host::takeException());
}

TEST_P(Reporting, PreparesTheCompanionOnce) {
  start();
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 0u);
  for (int i = 0; i < 3; ++i) {
    title(trouble());
    host::takeException();
  }
  EXPECT_EQ(companion()->count(COMPANION_PREPARED), 1u);
  EXPECT_EQ(companion()->count(COMPANION_EXCEPTIONS), 3u);
}

TEST_P(Reporting, RaisesOnTheThreadOfTheMember) {
  start();
  static const Member member = {item, "title as string"};
  Use use(member);
  use.throwing(trouble());
  host::Thread worker;
  std::thread([&] {
    host::Pool pool;
    worker = host::currentThread();
    use();
  }).join();
  auto raised = host::takeException();
  ASSERT_TRUE(raised);
  EXPECT_FALSE(worker.main());
  EXPECT_EQ(raised->thread, worker);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Reporting, session::everyInterface(), session::hostName);

// ---- Exceptions of the host's own classes
// ------------------------------------------------------------

struct Misuse {
  const char* name;
  const char* hostException;
  const char* message;
  void (*commit)();
};

const char* const tooOften = "Constructor called too often. Object is already initialized.";

void constructTwice(const char* className, const char* first, const char* second) {
  host::Object instance = host::create(className);
  auto construct = [&](std::string_view constructor) {
    if (constructor.ends_with("folderitem)")) {
      host::call(instance, constructor, host::Object());
    } else {
      host::call(instance, constructor);
    }
  };
  construct(first);
  construct(second);
  if (host::isA(instance, comparison)) host::call(instance, "Destructor");
}

const char* const bundleConstructor = "Constructor(Bundle as folderitem)";
const Misuse misuses[] = {
    {"ComparisonTwice", "UnsupportedOperationException", tooOften,
     [] { constructTwice(comparison, "Constructor", "Constructor"); }},
    {"ItemTwice", "UnsupportedOperationException", tooOften,
     [] { constructTwice(item, "Constructor", "Constructor"); }},
    {"AppcastTwice", "UnsupportedOperationException", tooOften,
     [] { constructTwice(appcast, "Constructor", "Constructor"); }},
    {"UpdaterTwice", "UnsupportedOperationException", tooOften,
     [] { constructTwice(updater, "Constructor", "Constructor"); }},
    {"UpdaterThenBundle", "UnsupportedOperationException", tooOften,
     [] { constructTwice(updater, "Constructor", bundleConstructor); }},
    {"BundleThenUpdater", "UnsupportedOperationException", tooOften,
     [] { constructTwice(updater, bundleConstructor, "Constructor"); }},
    {"BundleTwice", "UnsupportedOperationException", tooOften,
     [] { constructTwice(updater, bundleConstructor, bundleConstructor); }},
    {"NoInvocation", "NilObjectException", "invocation is nil!",
     [] { host::call(host::construct(updater, "Constructor"), "InvokeUpdate"); }},
    {"NoMemoryBlock", "OutOfMemoryException",
     "Failed to allocate a memoryblock with 3 bytes in size.",
     [] {
       static const Member member = {appcast, "incrementalData as memoryblock"};
       host::limitMemoryBlocks(2);
       EXPECT_EQ(Use(member)(), "nil");
     }},
};

class MisusedMember : public session::TestBase,
                      public testing::WithParamInterface<std::tuple<std::string, Misuse>> {
protected:
  void SetUp() override {
    session::TestBase::SetUp();
    session::start(std::get<0>(GetParam()));
    ASSERT_TRUE(loadFramework());
  }
  const Misuse& misuse() { return std::get<1>(GetParam()); }

  // The operations of raising, with the arguments that count.
  std::vector<std::string> steps() {
    host::startLog();
    misuse().commit();
    std::vector<std::string> steps;
    for (const host::LogEntry& entry : host::stopLog()) {
      const std::string& name = entry.name;
      if (name == "REALBuildString") {
        steps.push_back("build " + entry.arguments.at(1));
      } else if (name == "REALSetStringEncoding") {
        steps.push_back("mark " + entry.arguments.at(1));
      } else if (name == "PluginNewInstance") {
        steps.push_back("make " + entry.arguments.at(0));
      } else if (name == "REALSetPropValueString") {
        steps.push_back("set " + entry.arguments.at(1));
      } else if (name == "REALSetPropValueInt") {
        steps.push_back("set " + entry.arguments.at(1) + " " + entry.arguments.at(2));
      } else if (name == "RuntimeRaiseException") {
        steps.push_back("raise");
      } else if (name == "REALUnlockObject") {
        steps.push_back("unlock object");
      } else if (name == "REALUnlockString") {
        steps.push_back("unlock string");
      }
    }
    return steps;
  }
  std::string built() {
    return "build " + std::to_string(std::string_view(misuse().message).size());
  }
  std::string made() { return std::string("make \"") + misuse().hostException + "\""; }

  void expectRaised(const std::string& className, std::optional<std::string> message) {
    auto raised = host::takeException();
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->count, 1u);
    EXPECT_EQ(raised->className, className);
    EXPECT_EQ(raised->message, message);
    EXPECT_EQ(raised->errorNumber, 0);
    EXPECT_EQ(host::referenceCount(raised->object), 1);
    EXPECT_TRUE(raised->thread.main());
  }
};

TEST_P(MisusedMember, RaisesItsExceptionStepByStep) {
  EXPECT_THAT(steps(),
              ElementsAre(built(), "mark 1536", made(), "set \"Message\"", "set \"ErrorNumber\" 0",
                          "raise", "unlock object", "unlock string"));
  expectRaised(misuse().hostException, misuse().message);
  EXPECT_THAT(session::takeLog(), IsEmpty()) << "that is for Cocoa's exceptions";
}

TEST_P(MisusedMember, RaisesARuntimeExceptionWhereTheHostLacksTheClass) {
  host::hideClass(misuse().hostException);
  EXPECT_THAT(steps(), ElementsAre(built(), "mark 1536", made(), "make \"RuntimeException\"",
                                   "set \"Message\"", "set \"ErrorNumber\" 0", "raise",
                                   "unlock object", "unlock string"));
  expectRaised("RuntimeException", misuse().message);
}

TEST_P(MisusedMember, RaisesNothingWhereTheHostLacksBothClasses) {
  host::hideClass(misuse().hostException);
  host::hideClass("RuntimeException");
  EXPECT_THAT(steps(), ElementsAre(built(), "mark 1536", made(), "make \"RuntimeException\"",
                                   "unlock string"));
  EXPECT_FALSE(host::takeException());
}

TEST_P(MisusedMember, RaisesWithoutMessageWhereTheHostBuildsNoString) {
  host::failAlways("REALBuildString");
  EXPECT_THAT(steps(), ElementsAre(built(), made(), "set \"Message\"", "set \"ErrorNumber\" 0",
                                   "raise", "unlock object"));
  expectRaised(misuse().hostException, std::nullopt);
}

std::string misuseName(const testing::TestParamInfo<std::tuple<std::string, Misuse>>& info) {
  return session::hostName({std::get<0>(info.param), 0}) + "_" + std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(Hosts, MisusedMember,
                         testing::Combine(session::everyInterface(), testing::ValuesIn(misuses)),
                         misuseName);

// ---- Out of what the framework calls
// -------------------------------------------------------------------

// A callback, with its event, the answer of a handler that succeeds, what Cocoa gets then, and what
// it gets otherwise.
struct Callback {
  const char* name;
  const char* className;
  const char* event;
  host::Value (*answer)();
  std::string (*call)(id receiver, id object);
  const char* normal;
  const char* failed; // null: whatever there was by then
};
void PrintTo(const Callback& callback, std::ostream* out) { *out << callback.name; }

std::string printed(id object) { return object ? utf8([object description]) : "nil"; }
std::string printed(BOOL answer) { return answer ? "YES" : "NO"; }

host::Object keptComparison, keptItem, keptParameters;

const Callback callbacks[] = {
    {"Comparison", comparison, "compareVersion(VersionA as string, VersionB as string) as integer",
     [] { return host::Value(7); },
     [](id receiver, id) { return std::to_string([receiver compareVersion:@"1" toVersion:@"2"]); },
     "7", "-1"},
    {"PathToRelaunch", updater, "pathToRelaunchForUpdater as string",
     [] { return host::Value("/path"); },
     [](id receiver, id) { return printed([receiver pathToRelaunchForUpdater:nil]); }, "/path",
     "nil"},
    {"VersionComparator", updater, "versionComparatorForUpdater as SUVersionComparisonKVZ",
     [] { return host::Value(keptComparison); },
     [](id receiver, id) -> std::string {
       id comparator = [receiver versionComparatorForUpdater:nil];
       return !comparator ? "nil" : comparator == objectIn(keptComparison) ? "kept" : "another";
     },
     "kept", "nil"},
    {"WillRelaunch", updater, "updaterWillRelaunchApplication", [] { return host::Value(); },
     [](id receiver, id) -> std::string {
       [receiver updaterWillRelaunchApplication:nil];
       return "";
     },
     "", ""},
    {"DidNotFindUpdate", updater, "updaterDidNotFindUpdate", [] { return host::Value(); },
     [](id receiver, id) -> std::string {
       [receiver updaterDidNotFindUpdate:nil];
       return "";
     },
     "", ""},
    {"ShouldPrompt", updater, "updaterShouldPromptForPermissionToCheckForUpdates as boolean",
     [] { return host::Value(true); },
     [](id receiver, id) {
       return printed([receiver updaterShouldPromptForPermissionToCheckForUpdates:nil]);
     },
     "YES", "NO"},
    {"DidFindValidUpdate", updater, "didFindValidUpdate(update as SUAppcastItemKVZ)",
     [] { return host::Value(); },
     [](id receiver, id object) -> std::string {
       [receiver updater:nil didFindValidUpdate:object];
       return "";
     },
     "", ""},
    {"WillInstallUpdate", updater, "willInstallUpdate(update as SUAppcastItemKVZ)",
     [] { return host::Value(); },
     [](id receiver, id object) -> std::string {
       [receiver updater:nil willInstallUpdate:object];
       return "";
     },
     "", ""},
    {"DidFinishLoadingAppcast", updater, "didFinishLoadingAppcast(update as SUAppcastKVZ)",
     [] { return host::Value(); },
     [](id receiver, id object) -> std::string {
       [receiver updater:nil didFinishLoadingAppcast:object];
       return "";
     },
     "", ""},
    {"BestValidUpdate", updater,
     "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
     [] { return host::Value(keptItem); },
     [](id receiver, id object) -> std::string {
       id best = [receiver bestValidUpdateInAppcast:object forUpdater:nil];
       return !best ? "nil" : best == objectIn(keptItem) ? "kept" : "another";
     },
     "kept", "nil"},
    {"FeedParameters", updater,
     "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
     [] { return host::Value(keptParameters); },
     [](id receiver, id) -> std::string {
       NSArray* answer = [receiver feedParametersForUpdater:nil sendingSystemProfile:YES];
       return answer ? std::to_string([answer count]) : "nil";
     },
     "2", nullptr},
    {"ShouldPostponeRelaunch", updater,
     "shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean",
     [] { return host::Value(true); },
     [](id receiver, id object) {
       return printed([receiver updater:nil
           shouldPostponeRelaunchForUpdate:object
                             untilInvoking:object]);
     },
     "YES", "NO"},
};

class EveryCallback : public session::TestBase, public testing::WithParamInterface<Callback> {
protected:
  void SetUp() override {
    session::TestBase::SetUp();
    session::start("2013.03");
    host::Handler handler = [this](host::Event& event) {
      // Alive until the test ends: the destructor of a wrapper is no part of the callback.
      for (const host::Value& argument : event.arguments) arguments_.push_back(argument);
      if (handlerThrows) @throw handlerThrows;
      return GetParam().answer();
    };
    host::subclass("Handling", GetParam().className, {{GetParam().event, handler}});
    keptComparison = host::construct(comparison, "Constructor");
    keptItem = host::create(item);
    host::set(keptItem, "Handle", handleOf([Player new]));
    keptParameters = host::array(9, {host::dictionary({{"key", "a"}, {"value", "b"}}),
                                     host::dictionary({{"key", 1}, {"value", true}})});
    instance_ = host::construct("Handling", "Constructor");
    receiver_ = GetParam().className == comparison ? objectIn(instance_) : delegateOf(instance_);
    ASSERT_TRUE(receiver_);
    // Whatever comes once comes now.
    EXPECT_EQ(call(), GetParam().normal);
    EXPECT_EQ(host::referenceCount(keptParameters), 1) << "only an exception keeps parameters";
    session::takeLog();
  }
  void TearDown() override {
    if (GetParam().className == comparison) host::call(instance_, "Destructor");
    host::call(keptComparison, "Destructor");
    arguments_.clear();
    instance_.reset();
    keptComparison.reset();
    keptItem.reset();
    // A conversion of parameters that ends in an exception keeps what it held.
    for (const host::Value& element : host::elements(keptParameters)) {
      auto dictionary = element.as<host::Object>();
      while (host::referenceCount(dictionary) > 3) host::ObjectKind::unlock(dictionary.handle());
    }
    while (host::referenceCount(keptParameters) > 1)
      host::ObjectKind::unlock(keptParameters.handle());
    keptParameters.reset();
    session::TestBase::TearDown();
  }

  std::string call() { return GetParam().call(receiver_, [[Player new] autorelease]); }
  // The same; a throw out of it goes to THROWN.
  std::string call(id* thrown) {
    *thrown = nil;
    @try {
      return call();
    } @catch (id object) {
      *thrown = object;
    }
    return "";
  }
  void expectFailed(const std::string& answer) {
    if (GetParam().failed) EXPECT_EQ(answer, GetParam().failed);
  }

  id handlerThrows = nil;

private:
  host::Object instance_;
  id receiver_ = nil;
  std::vector<host::Value> arguments_;
};

TEST_P(EveryCallback, LogsAndSwallowsWhatItsHandlerThrows) {
  NSException* exception = [NSException exceptionWithName:@"Trouble"
                                                   reason:@"in a handler: 100%"
                                                 userInfo:nil];
  handlerThrows = exception;
  id thrown;
  expectFailed(call(&thrown));
  EXPECT_FALSE(thrown);
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_THAT(takeLog(), ElementsAre(utf8([exception description]) + "\n"));
  handlerThrows = nil;
  EXPECT_EQ(call(), GetParam().normal);
}

TEST_P(EveryCallback, LetsPassWhatIsNoException) {
  Odd* odd = [[Odd new] autorelease];
  handlerThrows = odd;
  id thrown;
  call(&thrown);
  EXPECT_EQ(thrown, odd);
  EXPECT_EQ(host::pendingExceptions(), 0u);
  EXPECT_THAT(takeLog(), IsEmpty());
  handlerThrows = nil;
  EXPECT_EQ(call(), GetParam().normal);
}

TEST_P(EveryCallback, LogsAndSwallowsWhatAnyOfItsMessagesThrows) {
  for (unsigned long nth = 1;; ++nth) {
    SCOPED_TRACE(testing::Message() << "message " << nth);
    id thrown;
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_message(nth, FAULTS_NSEXCEPTION);
    std::string answer = call(&thrown);
    faults_stop();
    EXPECT_FALSE(thrown);
    EXPECT_EQ(host::pendingExceptions(), 0u);
    if (faults_fired() == 0) {
      EXPECT_EQ(answer, GetParam().normal);
      EXPECT_THAT(takeLog(), IsEmpty());
      break;
    }
    expectFailed(answer);
    EXPECT_THAT(takeLog(), ElementsAre(testing::HasSubstr("message " + std::to_string(nth))));
  }
}

TEST_P(EveryCallback, LetsPassAnyMessagesThrowOfSomethingElse) {
  for (unsigned long nth = 1;; ++nth) {
    SCOPED_TRACE(testing::Message() << "message " << nth);
    id thrown;
    faults_start(FAULTS_THIS_THREAD);
    faults_fail_message(nth, FAULTS_OTHER_OBJECT);
    call(&thrown);
    faults_stop();
    if (faults_fired() == 0) break;
    EXPECT_EQ(printed(thrown), "an object that is no NSException");
    EXPECT_THAT(takeLog(), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(Callbacks, EveryCallback, testing::ValuesIn(callbacks),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
