#include "losses.h"

#include <iterator>

namespace torture {

const Loss losses[] = {
    {"*", failMessage, "never", "*", isSwallowed, "", "placeholder"},
};

const size_t lossCount = std::size(losses);

} // namespace torture
