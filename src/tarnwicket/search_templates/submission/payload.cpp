#include "core/module.hpp"

namespace tw {

void register_payload(handle) {}

}  // namespace tw
