#include "system/nqStringUtils.h"

namespace nq {

const std::locale nqStringUtils::msCplusLocale = std::locale::classic();

} // namespace nq
