#include "core/module.hpp"

namespace tw {

void register_context(handle) {}

}  // namespace tw
