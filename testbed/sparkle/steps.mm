#include "steps.h"

#import "SUStep.h"
#import "SUWindow.h"

#include <map>
#include <mutex>
#include <vector>

namespace {

std::recursive_mutex mutex; // an answer leads to further steps
std::vector<std::function<void(const steps::Step&)>> hooks;
std::map<std::string, std::string> answers;
std::function<void(double, double)> progressHook;

std::string text(NSDictionary* info, NSString* key) {
  id value = [info objectForKey:key];
  return value ? [[value description] UTF8String] : "";
}

void press(SUWindow* window, bool asks) {
  std::string button = asks ? [[[window buttons] objectAtIndex:0] UTF8String] : "";
  {
    std::lock_guard lock(mutex);
    auto named = answers.find([[window title] UTF8String]);
    if (named != answers.end()) button = named->second;
  }
  if (!button.empty()) [window press:[NSString stringWithUTF8String:button.c_str()]];
}

} // namespace

@interface StepsObserver : NSObject
@end

@interface ProgressObserver : NSObject
@end

@implementation ProgressObserver
- (void)progress:(NSNotification*)notification {
  NSDictionary* info = [notification userInfo];
  progressHook([[info objectForKey:@"bytes"] doubleValue],
               [[info objectForKey:@"expected"] doubleValue]);
}
@end

@implementation StepsObserver
- (void)step:(NSNotification*)notification {
  NSDictionary* info = [notification userInfo];
  steps::Step step{text(info, @"step"),
                   text(info, @"detail"),
                   text(info, @"thread"),
                   text(info, @"title"),
                   text(info, @"failure"),
                   text(info, @"selector"),
                   [[info objectForKey:@"pid"] intValue]};
  {
    std::lock_guard lock(mutex);
    for (auto& hook : hooks) hook(step);
  }
  if (SUWindow* window = [info objectForKey:@"window"])
    press(window, [[info objectForKey:@"step"] isEqual:SUStepAsks]);
}
@end

namespace {
StepsObserver* observer; // which the center does not hold

void observe() {
  if (observer) return;
  observer = [StepsObserver new];
  [[NSNotificationCenter defaultCenter] addObserver:observer
                                           selector:@selector(step:)
                                               name:SUUpdaterStepNotification
                                             object:nil];
}
} // namespace

namespace steps {

void watch(std::function<void(const Step&)> hook) {
  std::lock_guard lock(mutex);
  observe();
  hooks.push_back(std::move(hook));
}

void watchProgress(std::function<void(double, double)> hook) {
  progressHook = std::move(hook);
  [[NSNotificationCenter defaultCenter] addObserver:[ProgressObserver new]
                                           selector:@selector(progress:)
                                               name:SUUpdaterProgressNotification
                                             object:nil];
}

void answer(const std::string& title, const std::string& button) {
  std::lock_guard lock(mutex);
  observe();
  answers[title] = button;
}

} // namespace steps
