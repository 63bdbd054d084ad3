// Dates and bytes between the host and Cocoa. A null argument gives null, with no other effect.
#pragma once

#include "plugin/host.h"

// A host date's fields: year, month, day, hour, minute, second; month and day count from 1.
struct DateFields {
  std::int32_t values[6];
};

// False when there is no date or any field of it cannot be read. Sends no message, so it cannot
// throw.
bool readDateFields(_REALdate* date, DateFields* fields);

// An autoreleased NSCalendarDate of the fields, taken as local wall-clock time. Apart from the
// reading, so that the host's date can be given back before Cocoa may throw.
id NewNSDate(const DateFields& fields);

// A new host Date, owned by the caller, with the date's fields in the process's default time
// zone; fractions of a second are dropped. Null when the host makes none.
REALobjectStruct* NSDateRB(id date);

// A new MemoryBlock with the data's bytes, owned by the caller. Null for empty data. Raises
// OutOfMemoryException in the host, and answers null, when the host cannot allocate it; then it
// also sets *raised, where that is given.
REALobjectStruct* NSDataRB(id data, bool* raised = nullptr);
