#include "core/module.hpp"

namespace tw {

void register_binding(handle) {}

}  // namespace tw
