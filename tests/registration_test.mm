// What the host is told when it loads the plug-in: the interface version, and the class definitions
// word by word. The tables below are what host programs bind to.

#include "plugin_entry.h"
#include "plugin_objects.h"
#include "unreported.h"

#include "testbed/cocoa/faults.h"

#include <gmock/gmock.h>

#import <Foundation/Foundation.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <set>

using host::Registered;
using testing::ElementsAre;
using testing::ElementsAreArray;
using Words = std::vector<uint32_t>;

namespace {

// ---- The tables --------------------------------------------------------------------------------

struct MethodRow {
  const char* declaration;
  bool assignable = false;
};

struct ClassRow {
  const char* name;
  std::vector<MethodRow> methods;
  std::vector<std::string> events;
  std::vector<std::string> constants;
  std::vector<MethodRow> sharedMethods;
};

// In the order of registration.
const std::vector<ClassRow> classRows = {
    {"SUVersionComparisonKVZ",
     {{"Constructor"}, {"Destructor"}},
     {"compareVersion(VersionA as string, VersionB as string) as integer"},
     {"NSOrderedAscending = -1", "NSOrderedSame = 0", "NSOrderedDescending = 1"},
     {}},
    {"SUAppcastItemKVZ",
     {{"title as string"},
      {"versionString as string"},
      {"displayVersionString as string"},
      {"date as date"},
      {"itemDescription as string"},
      {"releaseNotesURL as string"},
      {"fileURL as string"},
      {"DSASignature as string"},
      {"minimumSystemVersion as string"},
      {"Constructor"},
      {"propertiesDictionary as dictionary"}},
     {},
     {},
     {}},
    {"SUUpdaterKVZ",
     {{"InvokeUpdate"},
      {"_exception as NSExceptionKVZ"},
      {"feedURL as string", true},
      {"automaticallyChecksForUpdates as boolean", true},
      {"sendsSystemProfile as boolean", true},
      {"automaticallyDownloadsUpdates as boolean", true},
      {"checkForUpdatesInBackground"},
      {"checkForUpdateInformation"},
      {"resetUpdateCycle"},
      {"updateInProgress as boolean"},
      {"updateCheckInterval as double", true},
      {"lastUpdateCheckDate as date"},
      {"checkForUpdates"},
      {"Constructor"},
      {"Constructor(Bundle as folderitem)"},
      {"hostBundle as folderitem"}},
     {"pathToRelaunchForUpdater as string", "versionComparatorForUpdater as SUVersionComparisonKVZ",
      "updaterWillRelaunchApplication", "updaterDidNotFindUpdate",
      "updaterShouldPromptForPermissionToCheckForUpdates as boolean",
      "didFindValidUpdate(update as SUAppcastItemKVZ)",
      "willInstallUpdate(update as SUAppcastItemKVZ)",
      "didFinishLoadingAppcast(update as SUAppcastKVZ)",
      "bestValidUpdateInAppcast(appcast as SUAppcastKVZ) as SUAppcastItemKVZ",
      "feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
      "shouldPostponeRelaunchForUpdate(sendingProfile as SUAppcastItemKVZ) as boolean"},
     {},
     {{"LoadFramework(path as folderitem) as boolean"}, {"IsFrameworkLoaded as boolean"}}},
    {"SUAppcastKVZ",
     {{"UserAgentString as string", true},
      {"fetchAppcastFromURL(url as string)"},
      {"Constructor"},
      {"items as SUAppcastItemKVZ()"},
      {"incrementalData as memoryblock"}},
     {},
     {},
     {}},
};

std::vector<std::string> classNames() {
  std::vector<std::string> names;
  for (const ClassRow& row : classRows) names.emplace_back(row.name);
  return names;
}

// Positions in the record: array, count; and words of an entry in version 9 and later.
struct TableRow {
  const char* name;
  unsigned array, count, oldWords, newWords;
};
constexpr TableRow propertyTable = {"properties", 7, 8, 10, 12};
constexpr TableRow methodTable = {"methods", 9, 10, 4, 6};
constexpr TableRow eventTable = {"events", 11, 12, 2, 4};
constexpr TableRow constantTable = {"constants", 18, 19, 3, 5};
constexpr TableRow sharedPropertyTable = {"shared properties", 21, 22, 10, 12};
constexpr TableRow sharedMethodTable = {"shared methods", 23, 24, 4, 6};
constexpr TableRow tableRows[] = {propertyTable, methodTable,         eventTable,
                                  constantTable, sharedPropertyTable, sharedMethodTable};

unsigned entryWords(const TableRow& table, uint32_t interfaceVersion) {
  return interfaceVersion == 9 ? table.oldWords : table.newWords;
}

const uint32_t* pointer(uint32_t word) { return reinterpret_cast<const uint32_t*>(word); }
std::string text(uint32_t word) { return word ? reinterpret_cast<const char*>(word) : "null"; }

Words entry(const Words& record, const TableRow& table, uint32_t interfaceVersion, unsigned index) {
  unsigned stride = entryWords(table, interfaceVersion);
  const uint32_t* first = pointer(record[table.array]) + index * stride;
  return Words(first, first + stride);
}

void expectTable(const Words& record, const TableRow& table, size_t count) {
  EXPECT_EQ(record[table.count], count) << table.name;
  if (count == 0) {
    EXPECT_EQ(record[table.array], 0u) << table.name;
  } else {
    EXPECT_NE(record[table.array], 0u) << table.name;
  }
}

void expectMethods(const Words& record, const TableRow& table, uint32_t interfaceVersion,
                   const std::vector<MethodRow>& rows) {
  ASSERT_NO_FATAL_FAILURE(expectTable(record, table, rows.size()));
  for (unsigned i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].declaration);
    Words words = entry(record, table, interfaceVersion, i);
    EXPECT_NE(words[0], 0u) << "function";
    EXPECT_EQ(words[1] != 0, rows[i].assignable) << "setter";
    EXPECT_EQ(text(words[2]), rows[i].declaration);
    EXPECT_EQ(words[3], 4u) << "flags";
    EXPECT_THAT(Words(words.begin() + 4, words.end()), testing::Each(0u)) << "attributes";
  }
}

// RECORD as it is handed to the host, before the host writes into it.
void expectRecord(const Words& record, uint32_t interfaceVersion, const ClassRow& row) {
  SCOPED_TRACE(row.name);
  EXPECT_EQ(record[0], interfaceVersion);
  EXPECT_EQ(text(record[1]), row.name);
  EXPECT_EQ(record[2], 0u) << "superclass";
  EXPECT_EQ(record[3], 16u) << "size of the instance data";
  EXPECT_EQ(record[4], 0u) << "for the host's use";
  EXPECT_NE(record[5], 0u) << "constructor";
  EXPECT_NE(record[6], 0u) << "destructor";
  for (unsigned i : {13, 14, 15, 16, 17}) EXPECT_EQ(record[i], 0u) << "word " << i;
  EXPECT_EQ(record[20], 4u) << "class flags";
  for (unsigned i = 25; i < record.size(); ++i) EXPECT_EQ(record[i], 0u) << "word " << i;

  expectTable(record, propertyTable, 1);
  Words property = entry(record, propertyTable, interfaceVersion, 0);
  EXPECT_EQ(property[0], 0u) << "group";
  EXPECT_EQ(text(property[1]), "Handle");
  EXPECT_EQ(text(property[2]), "Integer");
  EXPECT_EQ(property[3], 6u) << "flags";
  EXPECT_EQ(property[4], 0xFFFFFFFFu) << "getter";
  EXPECT_EQ(property[5], 0xFFFFFFFFu) << "setter";
  EXPECT_THAT(Words(property.begin() + 6, property.end()), testing::Each(0u));
  expectTable(record, sharedPropertyTable, 0);

  expectMethods(record, methodTable, interfaceVersion, row.methods);
  expectMethods(record, sharedMethodTable, interfaceVersion, row.sharedMethods);

  expectTable(record, eventTable, row.events.size());
  for (unsigned i = 0; i < row.events.size(); ++i) {
    Words words = entry(record, eventTable, interfaceVersion, i);
    EXPECT_EQ(text(words[0]), row.events[i]);
    EXPECT_THAT(Words(words.begin() + 1, words.end()), testing::Each(0u));
  }
  expectTable(record, constantTable, row.constants.size());
  for (unsigned i = 0; i < row.constants.size(); ++i) {
    Words words = entry(record, constantTable, interfaceVersion, i);
    EXPECT_EQ(text(words[0]), row.constants[i]);
    EXPECT_THAT(Words(words.begin() + 1, words.end()), testing::Each(0u));
  }
}

// ---- A host that does nothing but write down
// -----------------------------------------------------

// A record as it was handed over, with the contents of its tables.
struct Taken {
  const uint32_t* record;
  Words words; // 29, whatever the version
  std::map<std::string, Words> tables;
};

struct Notes {
  double version = 2013.03;
  uint32_t layout = 0; // of the entries; 0: the one that the record names
  std::set<std::string> lacking;
  std::vector<std::string> steps;
  std::vector<Taken> taken;
} notes;

uint32_t interfaceVersionOf(const Taken& taken) { return taken.words[0]; }

double tellVersion() {
  notes.steps.push_back("version told");
  return notes.version;
}
void takeAnnouncement(int32_t version) {
  notes.steps.push_back("announced " + std::to_string(version));
}
void takeClass(const uint32_t* record) {
  Taken taken{record, Words(record, record + 29), {}};
  notes.steps.push_back("registered " + text(record[1]));
  for (const TableRow& table : tableRows) {
    const uint32_t* first = pointer(record[table.array]);
    uint32_t layout = notes.layout ? notes.layout : record[0];
    size_t size = first ? record[table.count] * entryWords(table, layout) : 0;
    taken.tables[table.name] = Words(first, first + size);
  }
  notes.taken.push_back(std::move(taken));
}

void* resolveFromNotes(const char* name) {
  notes.steps.push_back(std::string("asked for ") + name);
  if (notes.lacking.contains(name)) return nullptr;
  std::string_view wanted = name;
  if (wanted == "REALGetRBVersion") return reinterpret_cast<void*>(tellVersion);
  if (wanted == "RegisterPluginVersion") return reinterpret_cast<void*>(takeAnnouncement);
  if (wanted == "PluginRegisterClass") return reinterpret_cast<void*>(takeClass);
  return nullptr;
}

// What a host of this version is given. Entering the plug-in a second time shows its records anew,
// and leaves behind those of the time before, which for a real host last as long as the process.
std::vector<Taken> enterAsHostOf(double version) {
  notes.version = version;
  notes.steps.clear();
  notes.taken.clear();
  session::Unreported former;
  session::enterPlugin(resolveFromNotes);
  return notes.taken;
}

class Entry : public testing::Test {};

TEST_F(Entry, TakesItsStepsInOrderAndAsksForNothingElse) {
  enterAsHostOf(2013.02);
  EXPECT_THAT(notes.steps,
              ElementsAre("asked for RegisterPluginVersion", "asked for REALGetRBVersion",
                          "version told", "announced 11", "asked for PluginRegisterClass",
                          "registered SUVersionComparisonKVZ", "registered SUAppcastItemKVZ",
                          "registered SUUpdaterKVZ", "registered SUAppcastKVZ"));
}

TEST_F(Entry, AHostThatTakesNoClassesIsAskedAgainForEachAndGetsNone) {
  notes.lacking = {"PluginRegisterClass"};
  enterAsHostOf(2014.1);
  EXPECT_THAT(notes.steps,
              ElementsAre("asked for RegisterPluginVersion", "asked for REALGetRBVersion",
                          "version told", "announced 12", "asked for PluginRegisterClass",
                          "asked for PluginRegisterClass", "asked for PluginRegisterClass",
                          "asked for PluginRegisterClass"));
}

TEST_F(Entry, ConvertsTheRecordsOfAnOldHostEvenWhenItTakesNone) {
  notes.lacking = {"PluginRegisterClass"};
  enterAsHostOf(2011.4);
  EXPECT_TRUE(notes.taken.empty());
  notes.lacking.clear();
  notes.layout = 9;
  std::vector<Taken> taken = enterAsHostOf(2013.03);
  ASSERT_EQ(taken.size(), classRows.size());
  for (size_t i = 0; i < taken.size(); ++i) {
    // Only the version word is that of the later host; the tables stayed converted.
    Words words(taken[i].words.begin(), taken[i].words.begin() + 25);
    EXPECT_EQ(words[0], 12u);
    words[0] = 9;
    expectRecord(words, 9, classRows[i]);
  }
}

TEST_F(Entry, AHostThatTakesNoVersionStillGetsTheClasses) {
  notes.lacking = {"RegisterPluginVersion"};
  EXPECT_EQ(enterAsHostOf(2013.0).size(), classRows.size());
  EXPECT_THAT(notes.steps, testing::Not(testing::Contains(testing::StartsWith("announced"))));
}

TEST_F(Entry, AHostThatOffersNothingAtAllIsSurvived) {
  notes.lacking = {"RegisterPluginVersion", "REALGetRBVersion", "PluginRegisterClass"};
  EXPECT_TRUE(enterAsHostOf(0).empty());
}

struct Threshold {
  const char* name;
  std::optional<double> hostVersion; // nothing: the host does not tell
  uint32_t interfaceVersion;
};

class Thresholds : public testing::TestWithParam<Threshold> {};

TEST_P(Thresholds, DecideTheInterfaceVersion) {
  if (!GetParam().hostVersion) notes.lacking = {"REALGetRBVersion"};
  std::vector<Taken> taken = enterAsHostOf(GetParam().hostVersion.value_or(2013.03));
  uint32_t expected = GetParam().interfaceVersion;
  EXPECT_THAT(notes.steps, testing::Contains("announced " + std::to_string(expected)).Times(1));
  ASSERT_EQ(taken.size(), classRows.size());
  for (const Taken& each : taken) EXPECT_EQ(interfaceVersionOf(each), expected);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Thresholds,
                         testing::ValuesIn(std::vector<Threshold>{
                             {"Untold", {}, 9},
                             {"Zero", 0.0, 9},
                             {"Negative", -2013.03, 9},
                             {"NoNumber", std::nan(""), 9},
                             {"Version5", 5.5, 9},
                             {"From2011_4", 2011.4, 9},
                             {"JustBelow2012", std::nextafter(2012.0, 0), 9},
                             {"Exactly2012", 2012.0, 10},
                             {"From2012_2", 2012.2, 10},
                             {"From2012_99", 2012.99, 10},
                             {"JustBelow2013", std::nextafter(2013.0, 0), 10},
                             {"Exactly2013", 2013.0, 11},
                             {"From2013_01", 2013.01, 11},
                             {"From2013_02", 2013.02, 11},
                             {"JustBelow2013_03", std::nextafter(2013.03, 0), 11},
                             {"Exactly2013_03", 2013.03, 12},
                             {"From2014_1", 2014.1, 12},
                             {"FarFuture", 1e300, 12},
                             {"Infinite", std::numeric_limits<double>::infinity(), 12},
                         }),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Conversion
// ------------------------------------------------------------------------------------

class NewerInterface : public testing::TestWithParam<double> {};

TEST_P(NewerInterface, GetsTheStaticArraysUntouched) {
  std::vector<Taken> taken = enterAsHostOf(GetParam());
  std::vector<Taken> again = enterAsHostOf(2013.03);
  ASSERT_EQ(taken.size(), classRows.size());
  for (size_t i = 0; i < taken.size(); ++i) {
    expectRecord(taken[i].words, interfaceVersionOf(taken[i]), classRows[i]);
    // No copies: another registration hands over the same record with the same arrays.
    EXPECT_EQ(taken[i].record, again[i].record);
    EXPECT_EQ(taken[i].tables, again[i].tables);
    Words words = taken[i].words;
    words[0] = 12;
    EXPECT_EQ(words, again[i].words) << "something else than the version word differs";
  }
}

INSTANTIATE_TEST_SUITE_P(Hosts, NewerInterface, testing::Values(2012.0, 2013.0, 2013.03),
                         [](const auto& info) {
                           return "Version" + std::to_string(10 + info.index);
                         });

TEST_F(Entry, ARecordForAnOldHostHasShorterEntriesInNewArrays) {
  std::vector<Taken> statics = enterAsHostOf(2013.03);
  std::vector<Taken> converted = enterAsHostOf(2011.4);
  ASSERT_EQ(converted.size(), classRows.size());
  std::set<uint32_t> arrays;
  size_t expectedArrays = 0;
  for (size_t i = 0; i < converted.size(); ++i) {
    SCOPED_TRACE(classRows[i].name);
    EXPECT_EQ(converted[i].record, statics[i].record) << "the record is converted in place";
    expectRecord(converted[i].words, 9, classRows[i]);
    for (const TableRow& table : tableRows) {
      SCOPED_TRACE(table.name);
      uint32_t count = converted[i].words[table.count];
      if (count == 0) continue;
      ++expectedArrays;
      arrays.insert(converted[i].words[table.array]);
      EXPECT_NE(converted[i].words[table.array], statics[i].words[table.array]);
      // Each entry is the beginning of the static one.
      for (unsigned n = 0; n < count; ++n) {
        Words whole = entry(statics[i].words, table, 12, n);
        if (table.array == eventTable.array) whole[1] = 0; // holds the way back, see below
        whole.resize(table.oldWords);
        EXPECT_EQ(entry(converted[i].words, table, 9, n), whole) << "entry " << n;
      }
    }
  }
  EXPECT_EQ(arrays.size(), expectedArrays) << "two tables share an array";
}

TEST_F(Entry, EachStaticEventLeadsToTheEntryThatAnOldHostWasGiven) {
  std::vector<Taken> statics = enterAsHostOf(2013.03);
  std::vector<Taken> converted = enterAsHostOf(2011.4);
  unsigned seen = 0;
  for (size_t i = 0; i < converted.size(); ++i) {
    for (unsigned n = 0; n < classRows[i].events.size(); ++n, ++seen) {
      Words staticEntry = entry(statics[i].words, eventTable, 12, n);
      EXPECT_EQ(text(staticEntry[0]), classRows[i].events[n]);
      EXPECT_EQ(staticEntry[1], converted[i].words[eventTable.array] + n * eventTable.oldWords * 4);
      EXPECT_EQ(staticEntry[2], 0u);
      EXPECT_EQ(staticEntry[3], 0u);
    }
  }
  EXPECT_EQ(seen, 12u);
}

TEST_F(Entry, StaticEventsStayAsTheyAreForANewerHost) {
  for (double version : {2012.0, 2013.0, 2013.03})
    for (const Taken& taken : enterAsHostOf(version))
      for (unsigned n = 0; n < taken.words[eventTable.count]; ++n)
        EXPECT_EQ(entry(taken.words, eventTable, 12, n)[1], 0u);
}

TEST_F(Entry, ATableThatFindsNoMemoryIsMissingAndTheOthersAreThere) {
  std::vector<Taken> statics = enterAsHostOf(2013.03);
  unsigned tables = 0;
  for (const Taken& taken : statics)
    for (const TableRow& table : tableRows) tables += taken.words[table.count] != 0;
  faults_start(FAULTS_THIS_THREAD);
  faults_fail_call("calloc", 3);
  std::vector<Taken> taken = enterAsHostOf(2011.4);
  unsigned long fired = faults_fired();
  faults_stop();
  EXPECT_EQ(fired, 1u);
  ASSERT_EQ(taken.size(), classRows.size());
  unsigned present = 0;
  for (const Taken& each : taken)
    for (const TableRow& table : tableRows) {
      present += each.words[table.array] != 0;
      EXPECT_EQ(each.words[table.array] != 0, each.words[table.count] != 0) << table.name;
    }
  EXPECT_EQ(present, tables - 1);
}

// ---- As hosts of each year read it
// -----------------------------------------------------------------

uint32_t expectedInterface(const std::string& hostName) {
  static const std::map<std::string, uint32_t> expected = {
      {"unversioned", 9}, {"2011.4", 9},   {"2012.0", 10},  {"2012.99", 10}, {"2013.0", 11},
      {"2013.01", 11},    {"2013.02", 11}, {"2013.03", 12}, {"2014.1", 12}};
  return expected.at(hostName);
}

class Registration : public session::Test {};

TEST_P(Registration, FollowsTheTablesWordByWord) {
  start();
  uint32_t expected = expectedInterface(GetParam());
  EXPECT_EQ(host::announcedVersion(), expected);
  for (const ClassRow& row : classRows) {
    const Registered* registered = host::registered(row.name);
    ASSERT_NE(registered, nullptr) << row.name;
    EXPECT_EQ(registered->version, expected);
    EXPECT_EQ(registered->words.size(), expected == 9 ? 25u : 29u);
    // The tables are live: the host has put its word into each event by now.
    Words words = registered->words;
    std::vector<uint32_t> eventWords;
    for (unsigned i = 0; i < row.events.size(); ++i) {
      auto* event = const_cast<uint32_t*>(registered->table(Registered::events)[i]);
      EXPECT_NE(event[1], 0u) << row.events[i];
      eventWords.push_back(std::exchange(event[1], 0));
    }
    expectRecord(words, expected, row);
    for (unsigned i = 0; i < row.events.size(); ++i)
      const_cast<uint32_t*>(registered->table(Registered::events)[i])[1] = eventWords[i];
  }
}

TEST_P(Registration, ComesInTheOrderThatTheClassesNeed) {
  session::start(GetParam(), {.companion = false});
  EXPECT_THAT(host::registrationOrder(), ElementsAreArray(classNames()));
  EXPECT_EQ(host::calls("RegisterPluginVersion"), 1u);
  EXPECT_EQ(host::calls("PluginRegisterClass"), 4u);
}

TEST_P(Registration, LeavesTheHostsWordAboutTheDataPositionInTheRecord) {
  start();
  for (const ClassRow& row : classRows)
    EXPECT_EQ(host::registered(row.name)->record[4], host::profile().dataOffset) << row.name;
}

TEST_P(Registration, MakesHandleTheFirstWordOfTheData) {
  start();
  for (const ClassRow& row : classRows) {
    host::Object instance = host::create(row.name);
    EXPECT_EQ(host::get<int32_t>(instance, "Handle"), 0) << row.name;
    auto* data = static_cast<int32_t*>(host::data(instance));
    data[0] = 0x1234;
    EXPECT_EQ(host::get<int32_t>(instance, "Handle"), 0x1234);
    host::set(instance, "Handle", 0);
    EXPECT_EQ(data[0], 0);
  }
}

TEST_P(Registration, LoadsNoFrameworkAndAsksCocoaForNothing) {
  faults_start(FAULTS_ALL_THREADS);
  session::start(GetParam(), {.companion = false});
  EXPECT_EQ(faults_messages(), 0u);
  EXPECT_EQ(faults_calls("malloc"), 0u);
  faults_stop();
  EXPECT_FALSE(host::callShared("SUUpdaterKVZ", "IsFrameworkLoaded as boolean").as<bool>());
}

INSTANTIATE_TEST_SUITE_P(Hosts, Registration, session::everyHost(), session::hostName);

// ---- The way back from an event to the host's word
// -------------------------------------------------

using RaiseEvent = void (*)(id delegate);

// In the order of the updater's events.
const RaiseEvent raiseEvents[] = {
    [](id delegate) { [delegate pathToRelaunchForUpdater:nil]; },
    [](id delegate) { [delegate versionComparatorForUpdater:nil]; },
    [](id delegate) { [delegate updaterWillRelaunchApplication:nil]; },
    [](id delegate) { [delegate updaterDidNotFindUpdate:nil]; },
    [](id delegate) { [delegate updaterShouldPromptForPermissionToCheckForUpdates:nil]; },
    [](id delegate) { [delegate updater:nil didFindValidUpdate:nil]; },
    [](id delegate) { [delegate updater:nil willInstallUpdate:nil]; },
    [](id delegate) { [delegate updater:nil didFinishLoadingAppcast:nil]; },
    [](id delegate) { [delegate bestValidUpdateInAppcast:nil forUpdater:nil]; },
    [](id delegate) { [delegate feedParametersForUpdater:nil sendingSystemProfile:NO]; },
    [](id delegate) {
      [delegate updater:nil shouldPostponeRelaunchForUpdate:nil untilInvoking:nil];
    },
};

// A handler that answers the zero of the event's result.
host::Handler silent(const std::string& declaration) {
  return declaration.ends_with("as boolean")
             ? host::Handler([](host::Event&) { return host::Value(false); })
             : host::Handler([](host::Event&) { return host::Value(nullptr); });
}

std::vector<std::string> raisedEvents() {
  std::vector<std::string> declarations;
  for (const host::EventRecord& event : host::events()) declarations.push_back(event.declaration);
  host::clearEvents();
  return declarations;
}

class EventLink : public session::Test {};

TEST_P(EventLink, EachUpdaterEventReachesTheHandlerOfItsOwnDeclaration) {
  start();
  ASSERT_TRUE(loadFramework());
  const std::vector<std::string>& declarations = classRows[2].events;
  ASSERT_EQ(std::size(raiseEvents), declarations.size());
  for (size_t i = 0; i < declarations.size(); ++i) {
    SCOPED_TRACE(declarations[i]);
    std::string name = "OnlyOne" + std::to_string(i);
    host::subclass(name, "SUUpdaterKVZ", {{declarations[i], silent(declarations[i])}});
    session::spareUpdater();
    host::Object updater = host::construct(name, "Constructor");
    id delegate = [reinterpret_cast<id>(host::get<int32_t>(updater, "Handle")) delegate];
    ASSERT_TRUE(delegate);
    for (RaiseEvent raise : raiseEvents) raise(delegate);
    EXPECT_THAT(raisedEvents(), ElementsAre(declarations[i]));
  }
}

TEST_P(EventLink, TheComparisonReachesItsHandler) {
  start();
  host::subclass("Comparing", "SUVersionComparisonKVZ",
                 {{classRows[0].events[0], [](host::Event&) { return 7; }}});
  host::Object comparison = host::construct("Comparing", "Constructor");
  id comparator = reinterpret_cast<id>(host::get<int32_t>(comparison, "Handle"));
  ASSERT_TRUE(comparator);
  EXPECT_EQ([comparator compareVersion:@"1" toVersion:@"2"], 7);
  EXPECT_THAT(raisedEvents(), ElementsAre(classRows[0].events[0]));
}

INSTANTIATE_TEST_SUITE_P(Hosts, EventLink, session::everyHost(), session::hostName);

} // namespace
