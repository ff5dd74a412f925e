// Late binding of module-level functions and sibling imports for the
// evaluation context and the submission path.
//
// A call site keeps the module's own function object; at each use it reads the
// name from the module namespace and, while the name still holds that object,
// runs the C++ code directly. Only a replaced name costs a Python call.
#pragma once

#include "core/module.hpp"

namespace tw::late {

struct Original {
    PyObject* fn = nullptr;
    // The reference is kept for the life of the process: call sites compare by identity.
    void keep(handle f) {
        Py_XINCREF(f.ptr());
        fn = f.ptr();
    }
};

// What `name` holds in the module namespace now, or a null object while it is
// still the module's own function. Raises NameError when the name was deleted.
inline object replacement(handle name, const Original& orig) {
    object f = global(name);
    if (f.ptr() == orig.fn) return object();
    return f;
}

// `from <module> import <name>`, through the import system at each call.
inline object from_import(const char* module, handle name) { return import_attr(module, name); }

// format(value, "") — the text an f-string gives a value.
inline std::string fmt(handle value) {
    if (PyUnicode_CheckExact(value.ptr())) return utf8(value);
    object empty = steal(PyUnicode_FromStringAndSize("", 0));
    return utf8(steal(PyObject_Format(value.ptr(), empty.ptr())));
}

// `a > b` with the host's comparison (exact floats compared in place).
inline bool greater(handle a, handle b) {
    if (PyFloat_CheckExact(a.ptr()) && PyFloat_CheckExact(b.ptr()))
        return PyFloat_AS_DOUBLE(a.ptr()) > PyFloat_AS_DOUBLE(b.ptr());
    return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_GT)) == 1;
}
inline bool less(handle a, handle b) {
    if (PyFloat_CheckExact(a.ptr()) && PyFloat_CheckExact(b.ptr()))
        return PyFloat_AS_DOUBLE(a.ptr()) < PyFloat_AS_DOUBLE(b.ptr());
    return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_LT)) == 1;
}

// `with lock:` — entered at construction, left by release() or on unwinding.
class WithLock {
public:
    explicit WithLock(handle lock) : lock_(borrow(lock.ptr())) {
        call_method(lock_, ID("__enter__"));
        held_ = true;
    }
    WithLock(const WithLock&) = delete;
    WithLock& operator=(const WithLock&) = delete;
    void release() {
        if (!held_) return;
        held_ = false;
        call_method(lock_, ID("__exit__"), {handle(Py_None), handle(Py_None), handle(Py_None)});
    }
    ~WithLock() {
        if (!held_) return;
        held_ = false;
        PyObject* argv[4] = {lock_.ptr(), Py_None, Py_None, Py_None};
        PyObject* r = PyObject_VectorcallMethod(ID("__exit__").ptr(), argv, 4 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
        if (r) Py_DECREF(r);
        else PyErr_WriteUnraisable(lock_.ptr());
    }

private:
    object lock_;
    bool held_ = false;
};

// `close = getattr(client, "close", None); if callable(close): close()`.
inline void close_client(handle client) {
    object close = get_attr_or_none(client, ID("close"));
    if (PyCallable_Check(close.ptr())) call(close);
}

// Runs `body` and then closes `client` on every way out, as try/finally does:
// an error raised by close() replaces the one in flight, chained to it.
template <class F>
object with_client(handle client, F&& body) {
    object result;
    try {
        result = body();
    } catch (py::error_already_set& e) {
        try {
            close_client(client);
        } catch (py::error_already_set& e2) {
            object first = e.value();
            object second = e2.value();
            Py_INCREF(first.ptr());
            PyException_SetContext(second.ptr(), first.ptr());
            throw;
        }
        throw;
    }
    close_client(client);
    return result;
}

}  // namespace tw::late
