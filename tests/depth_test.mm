// How deep values may be nested, and how much of a thread's stack a level of them takes.

#include "conversion.h"

#include <pthread.h>

using conversion::dictionaryToHost;
using conversion::Feeder;

namespace {

// The lowest place of the stack that anybody has noted.
uintptr_t lowest;

void noteStack() {
  char here;
  lowest = std::min(lowest, reinterpret_cast<uintptr_t>(&here));
}

// What the plug-in promises: deeper values become nothing.
constexpr int deepest = 512;

// Of a thread that is not the main one, on Mac OS X. The sanitizer widens every frame.
#if __has_feature(address_sanitizer)
constexpr size_t threadStack = 8 * 1024 * 1024;
#else
constexpr size_t threadStack = 512 * 1024;
#endif

struct CocoaKind {
  const char* name;
  id (*around)(id);
};
const CocoaKind cocoaKinds[] = {
    {"arrays", [](id inner) -> id { return [NSArray arrayWithObject:inner]; }},
    {"sets", [](id inner) -> id { return [NSSet setWithObject:inner]; }},
    {"values",
     [](id inner) -> id { return [NSDictionary dictionaryWithObject:inner forKey:@"k"]; }},
    {"keys", [](id inner) -> id { return [NSDictionary dictionaryWithObject:@"v" forKey:inner]; }},
};

struct HostKind {
  const char* name;
  host::Object (*around)(const host::Object&);
};
const HostKind hostKinds[] = {
    {"arrays", [](const host::Object& inner) { return host::array(9, {inner}); }},
    {"values",
     [](const host::Object& inner) {
       return host::dictionary({{"k", inner}});
     }},
    {"keys",
     [](const host::Object& inner) {
       return host::dictionary({{inner, "v"}});
     }},
};

id nested(const CocoaKind& kind, int levels, id leaf) {
  for (int i = 0; i < levels; ++i) leaf = kind.around(leaf);
  return leaf;
}

host::Object nested(const HostKind& kind, int levels, host::Object leaf) {
  for (int i = 0; i < levels; ++i) leaf = kind.around(leaf);
  return leaf;
}

// The stack that BODY takes on a thread of its own, as far as somebody notes it.
size_t stackOf(const std::function<void()>& body) {
  struct Run {
    const std::function<void()>& body;
    uintptr_t begin;
  } run{body, 0};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, threadStack);
  lowest = UINTPTR_MAX;
  pthread_t thread;
  auto start = [](void* context) -> void* {
    auto* run = static_cast<Run*>(context);
    run->begin = reinterpret_cast<uintptr_t>(&run);
    host::Pool pool;
    run->body();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, start, &run), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return run.begin - lowest;
}

// Runs CONVERT for values as deep as can be and one deeper, which must become nothing.
void expectDepth(const char* name, const std::function<bool(int levels)>& convert) {
  SCOPED_TRACE(name);
  constexpr int few = 12;
  size_t little = stackOf([&] { EXPECT_TRUE(convert(few)); });
  size_t most = stackOf([&] { EXPECT_TRUE(convert(deepest)); });
  size_t toNothing = stackOf([&] { EXPECT_FALSE(convert(deepest + 1)); });
  testing::Test::RecordProperty(name, static_cast<int>((most - little) / (deepest - few)));
  EXPECT_GT(most, little);
  EXPECT_LE(most, threadStack / 2);
  EXPECT_LE(toNothing, threadStack / 2);
}

class Depth : public session::Test {
protected:
  // Every operation of the host notes how far down the stack is.
  void start() {
    session::Test::start();
    host::setStacks(false);
    host::trace([](const host::Step&) { noteStack(); });
    host::traceOperations(true);
  }
  void TearDown() override {
    host::trace({});
    session::Test::TearDown();
  }
};
INSTANTIATE_TEST_SUITE_P(Hosts, Depth, session::oneHost(), session::hostName);

TEST_P(Depth, OnTheWayToTheHostLeavesHalfOfAThreadsStack) {
  start();
  for (const CocoaKind& kind : cocoaKinds)
    expectDepth(kind.name, [&](int levels) {
      id value = nested(kind, levels - 1, @"leaf"); // the properties are a level themselves
      return bool(dictionaryToHost([NSDictionary dictionaryWithObject:value forKey:@"k"]));
    });
}

TEST_P(Depth, OnTheWayToCocoaLeavesHalfOfAThreadsStack) {
  start();
  Feeder feeder;
  for (const HostKind& kind : hostKinds)
    expectDepth(kind.name, [&](int levels) {
      host::Object value = nested(kind, levels - 1, host::variant("leaf"));
      return feeder.convertDictionary(host::dictionary({{"k", value}})) != nil;
    });
}

} // namespace
