#include "core/module.hpp"

namespace tw {

void register_handle(handle) {}

}  // namespace tw
