// _SearchHandleImpl: the one object that holds a running search.
#include "handle/handle.hpp"

namespace tw::hnd {

object new_thread(handle target, handle name, std::initializer_list<handle> args) {
    object thread_cls = import_attr("threading", ID("Thread"));
    object argt = tuple_of(args);
    return call_kw(thread_cls, {},
                   {{ID("target"), target}, {ID("name"), name}, {ID("args"), argt}, {ID("daemon"), handle(Py_True)}});
}

void add_int(handle self, handle name, long long delta) {
    object cur = field(self, name);
    object d = int_of(delta);
    set_field(self, name, steal(PyNumber_Add(cur.ptr(), d.ptr())));
}

void rollback_quietly(handle self, const char* message) {
    with_lock(tracker_write_lock(self), [&] {
        object conn = tracker_conn(self);
        try {
            store::execute(conn, store::Stmt::rollback);
        } catch (py::error_already_set& e) {
            if (!ordinary(e) || !matches(e, import_attr("sqlite3", ID("Error")))) throw;
            log_warning(message, {exc_value(e)});
        }
    });
}

bool wait_event(handle ev, double seconds) {
    object t = float_of(seconds);
    return truthy(call_method(ev, ID("wait"), {t}));
}

}  // namespace tw::hnd

