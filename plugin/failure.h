// Reporting failures. Two audiences, two forms of the same frame (cocoa/exceptions.h):
//
//   host code called us          raising([&] { ... });
//   the framework called us      logging([&] { ... }, held...);
//
// Both throw on what is no NSException, and so may not return. Host references that a callback
// holds are given back after its body, in their order, whatever that or the giving back throws.
// Where the body of a member holds some, take the frame apart: attempt the body, give the
// references back, then raiseInHost what was thrown.
//
// A raise makes an exception pending in the host; it takes effect once the plug-in's
// function has returned, which therefore answers its zero at once and never raises twice.
#pragma once

#include "cocoa/exceptions.h"
#include "plugin/host.h"

// Raises a new instance of the named host exception class, or of RuntimeException where the host
// does not know the class. A null or empty message gives a null Message. ErrorNumber is always 0,
// whatever errorNumber says. Host thread.
void RaiseException(const char* className, const char* message, unsigned long errorNumber);

// Logs a Cocoa exception and raises it in the host as an NSExceptionKVZ. The companion plug-in
// makes that object; its presence is required, and where it has no answer the log line is all.
void RaiseNSExceptionKVZ(id exception);

// An NSException goes to RaiseNSExceptionKVZ; any other object is thrown on.
void raiseInHost(id thrown);

// Of what was thrown, nil for nothing: each NSException is written to the system log, then the
// first other object is thrown on. Any thread.
void logExceptions(const id* thrown, std::size_t count);

// Gives back a reference in a frame of its own. Answers what a destructor that the host ran let
// out, or nil.
id giveBack(REALobjectStruct*& held);
id giveBack(REALstringStruct* held);

template <class Body> inline void raising(Body&& body) {
  if (id thrown = attempt(body)) raiseInHost(thrown);
}

template <class Body, class... Handles> inline void logging(Body&& body, Handles*&... held) {
  const id thrown[] = {attempt(body), giveBack(held)...};
  logExceptions(thrown, 1 + sizeof...(held));
}

// Raises what a second call of a host constructor gets.
void raiseAlreadyInitialized();
