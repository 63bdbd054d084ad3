#include "losses.h"

#include <iterator>

namespace torture {

const Loss losses[] = {
    {"updater-half-bound", always, "*", "*", losesInCocoa, "MySUUpdaterDelegateInformalProtocol",
     "a second constructor call of a half-bound updater overwrites its delegate"},
};

const size_t lossCount = std::size(losses);

} // namespace torture
