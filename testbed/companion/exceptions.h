// Cocoa exceptions as host objects, and the registry of wrapped objects.
//
// The host class "NSExceptionKVZ" derives from "RuntimeException" where the host has that class.
// Its instance data begins with the retained NSException. Members: "name as string", "reason as
// string", and "Message": the property of "RuntimeException", set to the reason, or else a method
// like the other two.
//
// The registry is one dictionary for the process, from Cocoa object (by pointer) to host instance.
// It retains neither; whoever enters a pair takes it out when the instance goes. It belongs to the
// thread that runs host code.
#pragma once

#include "operations.h"

#import <Foundation/Foundation.h>

namespace companion {

// At entry, before any wrapper instance can exist.
void makeRegistry();

void registerExceptionClass(int32_t version);

// Takes the pair out of the registry if the object stands there for this instance.
void forgetInstance(id object, HostObject* instance);

// A new host string in UTF-8, locked for the caller; null for nil.
HostString* makeString(NSString* text);

void refuseExceptions(bool yes);
uint32_t preparations();
uint32_t exceptionsMade();
uint32_t registrySize();

} // namespace companion

// Its class methods are the ones that NSException gets.
@interface CompanionException : NSException
// A new host object that wraps the exception, locked for the caller, or null when the host cannot
// make one.
+ (companion::HostObject*)NewNSExceptionKVZ:(NSException*)exception;
+ (void)PrepareNSExceptionKVZ;
// The registry, a mutable Core Foundation dictionary. Not retained for the caller.
+ (void*)GetInstancesDictionaryKVZ;
@end
