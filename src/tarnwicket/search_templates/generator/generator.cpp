#include "core/module.hpp"

namespace tw {

void register_generator(handle) {}

}  // namespace tw
