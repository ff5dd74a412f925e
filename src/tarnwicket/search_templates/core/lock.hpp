// `with lock:` over a host lock: the one lock guard of the module.
//
//     with_lock(global(ID("_search_active_lock")), [&] { set_global(...); });
//
// The lock is the host's own object (Lock or RLock); acquire and release go
// through its methods, and a blocked acquire releases the GIL inside the host.
// The lock is released on every way out; a failing release wins, with the
// body's error as its context, as in a `with` block.
#pragma once

#include "core/errors.hpp"

#include <type_traits>
#include <utility>

namespace tw {

namespace detail {
// The C implementations behind the host's lock type (threading.Lock()), looked
// up once from its method descriptors. A lock of exactly that type is driven
// through them directly; any other lock object goes through its methods.
struct HostLockMethods {
    PyTypeObject* type = nullptr;
    PyCFunctionWithKeywords acquire = nullptr;
    PyCFunction release = nullptr;
    PyCFunction locked = nullptr;
    PyObject* empty_args = nullptr;
};

inline const HostLockMethods& host_lock_methods() {
    static HostLockMethods m = [] {
        HostLockMethods r;
        object threading = import_module("threading");
        object probe = call(get_attr(threading, ID("Lock")));
        object type = borrow(reinterpret_cast<PyObject*>(Py_TYPE(probe.ptr())));
        object acq = get_attr(type, ID("acquire"));
        object rel = get_attr(type, ID("release"));
        object lkd = get_attr(type, ID("locked"));
        if (Py_IS_TYPE(acq.ptr(), &PyMethodDescr_Type) && Py_IS_TYPE(rel.ptr(), &PyMethodDescr_Type) &&
            Py_IS_TYPE(lkd.ptr(), &PyMethodDescr_Type)) {
            PyMethodDef* ad = reinterpret_cast<PyMethodDescrObject*>(acq.ptr())->d_method;
            PyMethodDef* rd = reinterpret_cast<PyMethodDescrObject*>(rel.ptr())->d_method;
            PyMethodDef* ld = reinterpret_cast<PyMethodDescrObject*>(lkd.ptr())->d_method;
            if (ad->ml_flags == (METH_VARARGS | METH_KEYWORDS) && rd->ml_flags == METH_NOARGS &&
                ld->ml_flags == METH_NOARGS) {
                r.type = Py_TYPE(probe.ptr());
                Py_INCREF(r.type);
                r.acquire = reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(ad->ml_meth));
                r.release = rd->ml_meth;
                r.locked = ld->ml_meth;
                r.empty_args = PyTuple_New(0);
            }
        }
        return r;
    }();
    return m;
}
}  // namespace detail

// Raw forms for hot paths: a new reference to the result, or null with the
// error set.
inline PyObject* host_lock_acquire_raw(PyObject* lock) {
    ExitUnwindPad pad;
    const auto& hm = detail::host_lock_methods();
    if (hm.type && Py_IS_TYPE(lock, hm.type)) return hm.acquire(lock, hm.empty_args, nullptr);
    PyObject* argv[1] = {lock};
    return PyObject_VectorcallMethod(ID("acquire").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
}

inline PyObject* host_lock_release_raw(PyObject* lock) {
    const auto& hm = detail::host_lock_methods();
    if (hm.type && Py_IS_TYPE(lock, hm.type)) return hm.release(lock, nullptr);
    PyObject* argv[1] = {lock};
    return PyObject_VectorcallMethod(ID("release").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
}

// True when `lock` is a host Lock that nobody holds. A critical section that
// runs no Python code and keeps the GIL may then skip the acquire and release:
// no other thread can take the lock in between, and a host Lock cannot be
// watched. Anything else (an RLock, a replaced object) answers false.
inline bool host_lock_is_free(PyObject* lock) {
    const auto& hm = detail::host_lock_methods();
    if (!hm.type || !Py_IS_TYPE(lock, hm.type)) return false;
    PyObject* r = hm.locked(lock, nullptr);
    if (!r) {
        PyErr_Clear();
        return false;
    }
    bool held = r != Py_False;
    Py_DECREF(r);
    return !held;
}

inline void host_lock_acquire(handle lock) {
    PyObject* r = host_lock_acquire_raw(lock.ptr());
    if (!r) throw_py();
    Py_DECREF(r);
}

inline void host_lock_release(handle lock) {
    PyObject* r = host_lock_release_raw(lock.ptr());
    if (!r) throw_py();
    Py_DECREF(r);
}

// Runs `body` with `lock` held.
template <class F>
auto with_lock(handle lock, F&& body) -> decltype(body()) {
    using R = decltype(body());
    host_lock_acquire(lock);
    try {
        if constexpr (std::is_void_v<R>) {
            body();
        } else {
            R r = body();
            host_lock_release(lock);
            return r;
        }
    } catch (py::error_already_set& e) {
        if (!may_touch_objects()) throw;  // a thread unwound at exit: the lock dies with the process
        try {
            host_lock_release(lock);
        } catch (py::error_already_set& release_error) {
            set_context(release_error.value(), e.value());
            throw;
        }
        throw;
    } catch (...) {
        if (!may_touch_objects()) throw;  // a thread unwound at exit
        PyObject *t, *v, *tb;
        PyErr_Fetch(&t, &v, &tb);
        PyObject* r = host_lock_release_raw(lock.ptr());
        Py_XDECREF(r);
        if (!r) PyErr_Clear();
        PyErr_Restore(t, v, tb);
        throw;
    }
    if constexpr (std::is_void_v<R>) host_lock_release(lock);
}

}  // namespace tw
