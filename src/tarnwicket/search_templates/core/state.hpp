// The module's state: its namespace, and the original objects of the names
// that the code binds late. Everything here holds strong references, taken
// at import and released once, by release_module_state(), when the searches
// have been stopped at interpreter exit.
#pragma once

#include "core/py.hpp"

#include <vector>

namespace tw {

struct ModuleState {
    PyObject* module = nullptr;   // tarnwicket.search_templates
    PyObject* globals = nullptr;  // its __dict__
    // The module's own object for each late-bound name: `name` -> `original`.
    struct Original {
        PyObject* name;
        PyObject* object;
    };
    std::vector<Original> originals;
    // Each record class made by make_record, as it was made: its class, its
    // generated __init__, and per field its interned name and default (a
    // `factory` default is called for a fresh value).
    struct Record {
        PyObject* cls;
        PyObject* init;
        struct Field {
            PyObject* name;
            PyObject* dflt;
            bool factory;
        };
        std::vector<Field> fields;
    };
    std::vector<Record> records;
};

ModuleState& module_state();

// Takes the module and its namespace for the life of the process: code that
// runs late in finalisation (a finaliser, a dealloc) finds an emptied
// namespace, never freed memory.
void init_module_state(handle module);
// Records `obj` as the module's own object behind `name` (replacing an earlier one).
void keep_original(handle name, handle obj);
// Drops the originals; late-bound names then always go through Python.
void release_module_state();

// ---------------------------------------------------------------- the namespace

// Read a module global at the moment of use; raises NameError when absent.
object global(handle name);
// Read a module global, or `dflt` when absent.
object global_or(handle name, handle dflt);
inline object global_or_none(handle name) { return global_or(name, Py_None); }
void set_global(handle name, handle value);
inline void set_global(const char* name, handle value) { set_global(steal(PyUnicode_InternFromString(name)), value); }

// An expression over builtins and the module's own names (defaults in signatures).
object eval_in_module(const std::string& expr);

// The module object as imported by name through sys.modules, at this moment.
object st_module();
// Attribute of the module imported by name, none when absent.
object st_attr_or_none(handle name);

}  // namespace tw
