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

bool wait_event(handle ev, double seconds) {
    object t = float_of(seconds);
    return truthy(call_method(ev, ID("wait"), {t}));
}

}  // namespace tw::hnd

