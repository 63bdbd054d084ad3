// Dates: wall-clock fields, taken and given as they are.
#include "internal.h"

namespace host {

Object date(const DateFields& fields) {
  auto date = std::make_unique<Date>();
  date->fields = fields;
  return makeObject(builtInClass(Kind::date), std::move(date));
}

DateFields dateFields(const Object& date) { return needPayload<Date>(date, "Date").fields; }

} // namespace host
