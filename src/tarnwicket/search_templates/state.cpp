// Process-wide state of the module: the active flag, the latest handle and the
// weak set of live handles.
#include "core/module.hpp"

namespace tw {

void register_state(handle m) {
    (void)m;
    object threading = import_module("threading");
    object weakref = import_module("weakref");
    set_global("_search_active", bool_of(false));
    set_global("_search_active_lock", call(get_attr(threading, ID("Lock"))));
    set_global("_active_search_handle", none());
    set_global("_active_handles", call(get_attr(weakref, ID("WeakSet"))));
    set_global("_REPLACEMENT_ABORT_BOOTSTRAP_LOCK", call(get_attr(threading, ID("Lock"))));
    set_global("_EMPTY_FIELD_SET", steal(PyFrozenSet_New(nullptr)));
}

}  // namespace tw
