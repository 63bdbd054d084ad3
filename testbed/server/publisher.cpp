#include "release.h"

namespace testbed {

namespace {
const KeyPair keys = [] {
  KeyPair made = make_key_pair();
  sign(made, "");
  return made;
}();
} // namespace

const KeyPair& publisher() { return keys; }

} // namespace testbed
