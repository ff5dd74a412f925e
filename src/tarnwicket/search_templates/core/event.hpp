// The host's threading.Event, as the module probes and sets it. The event is
// whatever object the host put there; its own `is_set` and `set` are called.
//
//     if (event_is_set(get_attr(self, ID("_stop_event")))) return;
#pragma once

#include "core/py.hpp"

namespace tw {

inline bool event_is_set(handle event) { return truthy(call_method(event, ID("is_set"))); }
inline void event_set(handle event) { call_method(event, ID("set")); }

}  // namespace tw
