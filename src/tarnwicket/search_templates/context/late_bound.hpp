// Late binding of module-level functions and sibling imports for the
// evaluation context and the submission path, and the few helpers that make
// their C++ behave as the Python code would (f-string texts, recursion limit).
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
