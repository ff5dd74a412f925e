// Shared helpers of _SearchHandleImpl: field access, host locks and threads.
#pragma once

#include "core/module.hpp"

namespace tw::hnd {

// self.<name>
inline object field(handle self, handle name) { return get_attr(self, name); }
inline void set_field(handle self, handle name, handle v) { set_attr(self, name, v); }
inline bool field_true(handle self, handle name) { return truthy(get_attr(self, name)); }

// The handle's `_lock`.
inline object lock_of(handle self) { return field(self, ID("_lock")); }

inline bool event_is_set(handle ev) { return truthy(call_method(ev, ID("is_set"))); }
inline void event_set(handle ev) { call_method(ev, ID("set")); }

// threading.Thread(target=target, name=name, args=args, daemon=True), not started.
object new_thread(handle target, handle name, std::initializer_list<handle> args = {});
inline object new_thread(handle target, const std::string& name, std::initializer_list<handle> args = {}) {
    return new_thread(target, str_of(name), args);
}
inline void start_thread(handle t) { call_method(t, ID("start")); }
inline bool thread_alive(handle t) { return truthy(call_method(t, ID("is_alive"))); }

// seq.append(v) on a field that a host may have set to any object.
inline void append_to(handle seq, handle v) {
    if (PyList_CheckExact(seq.ptr()))
        list_append(seq, v);
    else
        call_method(seq, ID("append"), {v});
}

// counter += delta under no lock (callers hold _lock).
void add_int(handle self, handle name, long long delta);

// Wait on the stop event for `seconds`, through the host's Event.wait.
bool wait_event(handle ev, double seconds);

}  // namespace tw::hnd

namespace tw::hnd {
// Method groups of the handle class, each in its own file.
void register_construction(handle cls);
void register_threads(handle cls, handle m);
void register_supervision(handle cls);
void register_shutdown(handle cls);
void register_status(handle cls);
void register_claims(handle cls);
}  // namespace tw::hnd
