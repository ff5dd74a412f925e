// The template sandbox: a per-thread guard and the three hooked operations.
#pragma once

#include "core/module.hpp"

namespace tw::vocab {

// Makes the guard's type; called once when the module registers its names.
void init_guard_type();

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
