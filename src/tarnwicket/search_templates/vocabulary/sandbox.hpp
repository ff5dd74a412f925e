// The template sandbox: a per-thread guard and the three hooked operations.
#pragma once

#include "core/module.hpp"

namespace tw::vocab {

// What `_template_sandbox()` returns: entering installs (or re-asserts) the hooks
// and marks the thread; leaving unmarks it, also on an exception, which goes on.
struct GuardObject {
    PyObject_HEAD PyObject* ident;
};
// The guard's type, made when the module registers it.
extern PyTypeObject* g_guard_type;

void guard_dealloc(PyObject* self);
PyObject* guard_enter(PyObject* self, PyObject*);
PyObject* guard_exit(PyObject* self, PyObject* const* args, Py_ssize_t nargs);

// The replacements of open, sqlite3.connect and urllib.request.urlopen: they
// refuse on a sandboxed thread and forward their arguments untouched elsewhere.
PyObject* sandboxed_open(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* sandboxed_sqlite_connect(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* sandboxed_urllib_urlopen(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

object template_sandbox();
bool template_sandbox_active();
[[noreturn]] void raise_violation(handle operation);
void install_template_hooks();

}  // namespace tw::vocab
