// The units of any NSString, lone surrogates included. Not for other folders.
#pragma once

#import <Foundation/Foundation.h>

#include <string>

namespace text {

inline std::u16string units_of(NSString* string) {
  std::u16string units([string length], u'\0');
  [string getCharacters:reinterpret_cast<unichar*>(units.data())
                  range:NSMakeRange(0, units.size())];
  return units;
}

} // namespace text
