#include "core/module.hpp"

namespace tw {

void register_preflight(handle) {}

}  // namespace tw
