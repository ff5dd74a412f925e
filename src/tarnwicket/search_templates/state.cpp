// Process-wide state of the module: the active flag, the latest handle and the
// weak set of live handles; and the stop of every live search at interpreter
// exit.
#include "operations.hpp"

namespace tw {

std::atomic<bool> g_interpreter_exiting{false};

namespace ops {

// Runs when the host shuts its threads down, before it finalises (the hook the
// standard library's executors use to stop their workers). Every live search
// is stopped as stop() does it: persisted work is kept, the threads are joined
// and the active flags are cleared. From here on, threads that outlive their
// join are left to the host, and nothing of theirs touches the module again.
object stop_searches_at_exit() {
    object handles = list_from(global(ID("_active_handles")));
    object latest = global_or_none(ID("_active_search_handle"));
    if (!is_none(latest)) list_append(handles, latest);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(handles.ptr()); ++i) {
        object h = borrow(PyList_GET_ITEM(handles.ptr(), i));
        try {
            call_method(h, ID("stop"));
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to stop search at interpreter exit: %s", {exc_value(e)});
        }
    }
    g_interpreter_exiting.store(true);
    release_module_state();
    return none();
}

void register_exit_hook() {
    // Not a name of the module: only the host calls it, once.
    object hook = make_function<stop_searches_at_exit>("_stop_searches_at_exit()",
                                                       "Stop every live search before the interpreter finalises.");
    object threading = import_module("threading");
    object register_atexit = get_attr_or_none(threading, ID("_register_atexit"));
    if (!PyCallable_Check(register_atexit.ptr())) return;
    try {
        call(register_atexit, {hook});
    } catch (py::error_already_set& e) {
        // Imported while the host is already shutting its threads down.
        if (!matches(e, PyExc_RuntimeError)) throw;
        g_interpreter_exiting.store(true);
    }
}

}  // namespace ops

}  // namespace tw
