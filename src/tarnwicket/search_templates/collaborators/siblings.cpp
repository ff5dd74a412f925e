#include "core/module.hpp"

namespace tw {

void register_collaborators(handle) {}

}  // namespace tw
