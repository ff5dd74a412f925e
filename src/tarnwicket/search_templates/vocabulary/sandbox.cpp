#include "core/module.hpp"

namespace tw {

void register_sandbox(handle) {}

}  // namespace tw
