// The onboarding module (`tarnwicket.agent_onboarding`), which may not be
// installed at all: its configuration and its auth manager.
#pragma once

#include "core/module.hpp"

namespace tw::onboarding {

// True when `e` says that the onboarding module itself is not installed (an
// import failing inside it is not that).
bool is_absent(const py::error_already_set& e);
// The onboarding module, or a null object when it is not installed.
object module_or_null();

}  // namespace tw::onboarding
