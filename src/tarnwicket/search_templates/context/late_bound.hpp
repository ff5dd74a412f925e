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

}  // namespace tw::late
