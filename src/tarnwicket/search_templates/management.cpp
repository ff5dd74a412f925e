#include "core/module.hpp"

namespace tw {

void register_management(handle) {}

}  // namespace tw
