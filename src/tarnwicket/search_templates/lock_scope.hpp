// `with lock:` over a host threading.Lock, and `from module import name`.
//
// The lock is the host's own object; acquire and release go through its
// methods by vectorcall. A blocked acquire releases the GIL inside the host.
#pragma once

#include "core/module.hpp"

#include <type_traits>
#include <utility>

namespace tw {

inline void host_lock_acquire(handle lock) {
    PyObject* argv[1] = {lock.ptr()};
    PyObject* r = PyObject_VectorcallMethod(ID("acquire").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    if (!r) throw_py();
    Py_DECREF(r);
}

inline void host_lock_release(handle lock) {
    PyObject* argv[1] = {lock.ptr()};
    PyObject* r = PyObject_VectorcallMethod(ID("release").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
    if (!r) throw_py();
    Py_DECREF(r);
}

// Release while an error from the guarded body is on its way out. A failing
// release wins, with the body's error as its context, as in a `with` block.
inline void host_lock_release_during(handle lock, py::error_already_set& pending) {
    try {
        host_lock_release(lock);
    } catch (py::error_already_set& e2) {
        object ctx = pending.value();
        PyException_SetContext(e2.value().ptr(), ctx.release().ptr());
        throw;
    }
}

// Runs `body` with `lock` held; the lock is released on every way out.
template <class F>
auto with_host_lock(handle lock, F&& body) -> decltype(body()) {
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
        host_lock_release_during(lock, e);
        throw;
    } catch (...) {
        PyObject *t, *v, *tb;
        PyErr_Fetch(&t, &v, &tb);
        PyObject* argv[1] = {lock.ptr()};
        PyObject* r = PyObject_VectorcallMethod(ID("release").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
        Py_XDECREF(r);
        if (!r) PyErr_Clear();
        PyErr_Restore(t, v, tb);
        throw;
    }
    if constexpr (std::is_void_v<R>) host_lock_release(lock);
}

// `from <module> import <name>`: the module through the import system each
// time; a missing name is an ImportError, as the statement raises it.
inline object from_import(const char* module, handle name) {
    object m = import_module(module);
    PyObject* r = nullptr;
    if (check_int(_PyObject_LookupAttr(m.ptr(), name.ptr(), &r)) == 1) return steal(r);
    object modname = str_of(module);
    object path = get_attr_or_none(m, ID("__file__"));
    object msg = is_none(path)
                     ? steal(PyUnicode_FromFormat("cannot import name %R from %R (unknown location)", name.ptr(),
                                                  modname.ptr()))
                     : steal(PyUnicode_FromFormat("cannot import name %R from %R (%S)", name.ptr(), modname.ptr(),
                                                  path.ptr()));
    PyErr_SetImportError(msg.ptr(), modname.ptr(), path.ptr());
    throw_py();
}

}  // namespace tw
