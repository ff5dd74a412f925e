#include "core/module.hpp"

namespace tw {

void register_lifecycle(handle) {}

}  // namespace tw
