// The Cocoa classes of the plug-in's own are there from load on, for every thread; and many threads
// may use the plug-in for the first time at once.
//
// A first use needs a fresh process: each round is a fork, made before anything is loaded.
// FIRST_USE_ROUNDS=1000 plays more of them than the usual few.
#include "fakes.h"
#include "plugin_entry.h"

#include <sys/wait.h>
#include <unistd.h>

namespace {

const char* const cocoaClasses[] = {"MySUVersionComparison", "MySUUpdaterDelegateInformalProtocol"};

// The Cocoa object of a new instance: a comparator, or a delegate.
id newObject(bool comparator) {
  const char* type = comparator ? "SUVersionComparisonKVZ" : "SUUpdaterKVZ";
  host::Object instance = host::construct(type, "Constructor");
  return [[static_cast<id*>(host::data(instance))[comparator ? 0 : 1] retain] autorelease];
}

// In a process of its own; answers how many objects were not made.
int firstUse() {
  session::start("2013.03");
  host::setWatching(false);
  constexpr int threadCount = 8;
  std::atomic<int> coming{threadCount}, missing{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i)
    threads.emplace_back([&, i] {
      host::Pool pool;
      --coming;
      while (coming > 0) std::this_thread::yield();
      missing += newObject(i % 2 == 0) == nil;
    });
  for (std::thread& thread : threads) thread.join();
  host::Pool pool;
  for (bool comparator : {true, false}) missing += newObject(comparator) == nil;
  return missing;
}

TEST(FirstUse, ByManyThreadsAtOnceServesThemAllAndEverybodyAfterThem) {
  const char* given = std::getenv("FIRST_USE_ROUNDS");
  int rounds = given ? std::atoi(given) : 20, spoiled = 0;
  for (int round = 0; round < rounds; ++round) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(firstUse());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    spoiled += status != 0;
  }
  EXPECT_EQ(spoiled, 0) << "of " << rounds << " processes";
}

class CocoaClasses : public session::Test {};
INSTANTIATE_TEST_SUITE_P(Hosts, CocoaClasses, session::everyInterface(), session::hostName);

TEST_P(CocoaClasses, AreThereBeforeTheFirstInstance) {
  for (const char* name : cocoaClasses) ASSERT_FALSE(objc_lookUpClass(name)) << name;
  start();
  for (const char* name : cocoaClasses) EXPECT_TRUE(objc_lookUpClass(name)) << name;
}

TEST_P(CocoaClasses, TakeTheFirstFreeNumberWhereTheirNamesAreTaken) {
  // One of the comparator's, two of the delegate's.
  for (const char* taken : {"MySUVersionComparison", "MySUUpdaterDelegateInformalProtocol",
                            "MySUUpdaterDelegateInformalProtocol2"})
    objc_registerClassPair(objc_allocateClassPair([NSObject class], taken, 0));
  start();
  EXPECT_STREQ(object_getClassName(newObject(true)), "MySUVersionComparison2");
  EXPECT_STREQ(object_getClassName(newObject(false)), "MySUUpdaterDelegateInformalProtocol3");
}

TEST_P(CocoaClasses, AreMadeOnceHoweverOftenTheHostEnters) {
  for (int times = 0; times < 2; ++times) {
    session::enterPlugin([](const char* name) -> void* {
      std::string_view asked = name;
      if (asked == "RegisterPluginVersion") return reinterpret_cast<void*>(+[](int32_t) {});
      // An old host's records are converted where they stand, which goes once only.
      if (asked == "REALGetRBVersion") return reinterpret_cast<void*>(+[] { return 2013.03; });
      return nullptr;
    });
  }
  for (std::string name : cocoaClasses) {
    EXPECT_TRUE(objc_lookUpClass(name.c_str()));
    EXPECT_FALSE(objc_lookUpClass((name + "2").c_str()));
  }
}

} // namespace
