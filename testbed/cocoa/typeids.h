/* Core Foundation type identifiers, and objects for tests that have one.
 *
 * Every NSObject answers _cfTypeID, as (very likely) on Mac OS X: the identifier of its CF type if
 * it has one, else 1. With TESTBED_CFTYPEID=none in the environment only the objects made here do.
 * CFGetTypeID gives what an object's _cfTypeID answers. Threads: any. Ownership: the functions that
 * make an object answer it with one reference, which the caller releases.
 */
#pragma once

#include <objc/objc.h>

/* The function of each row is NAMEGetTypeID; the library exports every one of them. */
#define TYPEID_ROWS(ROW)                                                                           \
  ROW(CFURL)                                                                                       \
  ROW(CFDictionary)                                                                                \
  ROW(CFString)                                                                                    \
  ROW(CFNumber)                                                                                    \
  ROW(CFArray)                                                                                     \
  ROW(CFBoolean)                                                                                   \
  ROW(CFData)                                                                                      \
  ROW(CFCharacterSet)                                                                              \
  ROW(CFBundle)                                                                                    \
  ROW(CFSet)                                                                                       \
  ROW(CFBag)                                                                                       \
  ROW(CFUUID)                                                                                      \
  ROW(CFTimeZone)                                                                                  \
  ROW(CFDate)                                                                                      \
  ROW(CFAttributedString)                                                                          \
  ROW(CFError)                                                                                     \
  ROW(CGPSConverter)                                                                               \
  ROW(CGContext)                                                                                   \
  ROW(CGColorSpace)                                                                                \
  ROW(CGColor)                                                                                     \
  ROW(CGImage)                                                                                     \
  ROW(CGLayer)                                                                                     \
  ROW(CGFont)                                                                                      \
  ROW(CGDataConsumer)                                                                              \
  ROW(CGDataProvider)                                                                              \
  ROW(CTFont)                                                                                      \
  ROW(CTFontCollection)                                                                            \
  ROW(CTFrame)                                                                                     \
  ROW(CTFramesetter)                                                                               \
  ROW(CTGlyphInfo)                                                                                 \
  ROW(CTLine)                                                                                      \
  ROW(CTParagraphStyle)                                                                            \
  ROW(CTRun)                                                                                       \
  ROW(CTRunDelegate)                                                                               \
  ROW(CTTypesetter)

#ifdef __cplusplus
extern "C" {
#endif

/* The identifier that the function NAME ("CFURLGetTypeID") answers, or 0 for a name that no row
 * has. Every row has one of its own, above 1. */
unsigned long typeids_of(const char* name);

/* An identifier above 1 that no row has. */
unsigned long typeids_of_no_row(void);

/* From here on objects of the class and of its subclasses answer 0: no CF object of any kind. */
void typeids_deny(Class type);

/* An object whose _cfTypeID is TYPE, whatever that is: an identifier from above, or 0. */
id typeids_object(unsigned long type);

typedef enum { TYPEIDS_NSEXCEPTION, TYPEIDS_OTHER_OBJECT } typeids_thrown;

/* Lets the object throw. ON is the place: "_cfTypeID" throws whenever that message arrives,
 * "CFGetTypeID" lets the message through and throws in that function, "retain" throws whenever it
 * is retained, by CFRetain, CGImageRetain or a message. */
void typeids_throw(id object, const char* on, typeids_thrown what);

/* How often the object made above was retained and released, and how often by CGImageRetain. */
typedef struct {
  unsigned retains, releases, image_retains;
} typeids_counts;
typeids_counts typeids_count(id object);

#ifdef __cplusplus
}
#endif
