#include "stage.h"

namespace torture {

Stage::Stage(host::Handlers handlers) {
  host::subclass("OwnSUUpdaterKVZ", "SUUpdaterKVZ", std::move(handlers));
  played = [PlayedUpdater played];
  [PlayedUpdater offer:played];
  updater = make("OwnSUUpdaterKVZ");
  member(updater, "Constructor");
  delegate = played->delegate;
  if (!delegate && !faulty()) fail("the updater has no delegate");
}

void Stage::end() {
  delegate = nil;
  destroy(updater);
}

host::Handlers::value_type feedHandler(host::Object& answer) {
  return {"feedParametersForUpdater(sendingProfile as boolean) as dictionary()",
          [&answer](host::Event&) { return host::Value(answer); }};
}

NSArray* feedParameters(const char* label, id<Delegate> delegate, host::Object& answer,
                        const host::Object& array, unsigned lines) {
  std::vector<host::Object> elements;
  std::vector<int> held;
  if (array)
    for (const host::Value& element : host::elements(array))
      elements.push_back(element.as<host::Object>());
  for (const host::Object& element : elements) held.push_back(host::referenceCount(element));
  answer = array;
  int arrayHeld = host::referenceCount(array);
  NSArray* result = nil;
  callback(
      label, [&] { result = [delegate feedParametersForUpdater:nil sendingSystemProfile:YES]; },
      // With a fault any element may become nil, for which Cocoa raises.
      faulty() ? 1 : lines);
  answer = nullptr;
  --arrayHeld;
  if (!wasCutShort() || !array) return result;

  auto giveBack = [](const host::Object& lost) { host::Object::adopt(lost.handle()).reset(); };
  if (host::referenceCount(array) == arrayHeld + 1) giveBack(array);
  for (size_t i = 0; i < elements.size(); ++i)
    if (elements[i] && host::referenceCount(elements[i]) == held[i] + 1) {
      giveBack(elements[i]);
      break;
    }
  return result;
}

} // namespace torture
