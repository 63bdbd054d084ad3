// Text between the host and Cocoa. No function here raises; every failure is null. No Unicode
// normalisation either way. Any thread.
#pragma once

#include "plugin/host.h"

// A Cocoa string with the host string's text, owned by the caller. Null for a null string, or
// when the host offers no way to its text.
CFStringRef RBString2CFString(REALstringStruct* string);

// A new host string in UTF-8, owned by the caller. Null for a null or empty string: nothing and
// an empty text are the same to a host program. Text behind a NUL is not carried over.
REALstringStruct* CFString2RBString(CFStringRef string);

// RBString2CFString's result, autoreleased; nil for null.
id autoreleasedString(REALstringStruct* string);

// An autoreleased URL from a host string's text; nil for null and for text that is no URL.
id autoreleasedURL(REALstringStruct* string);
