#include "core/late.hpp"

#include <string>

namespace tw {

ModuleState& module_state() {
    static ModuleState& s = *new ModuleState;  // never destroyed: no release after the interpreter is gone
    return s;
}

void init_module_state(handle module) {
    ModuleState& s = module_state();
    s.module = module.inc_ref().ptr();
    s.globals = PyModule_GetDict(module.ptr());
    Py_INCREF(s.globals);
}

void keep_original(handle name_arg, handle obj) {
    // Names are compared by identity: keep the interned string, as LateFn holds.
    PyObject* interned = name_arg.inc_ref().ptr();
    PyUnicode_InternInPlace(&interned);
    object name = steal(interned);
    auto& originals = module_state().originals;
    for (auto& o : originals) {
        if (o.name == name.ptr()) {
            PyObject* old = o.object;
            o.object = obj.inc_ref().ptr();
            Py_XDECREF(old);
            return;
        }
    }
    originals.push_back({name.inc_ref().ptr(), obj.inc_ref().ptr()});
}

void release_module_state() {
    // Slots stay where they are (call sites remember them); only the objects go.
    for (auto& o : module_state().originals) {
        PyObject* old = o.object;
        o.object = nullptr;
        Py_XDECREF(old);
    }
}

int LateFn::slot() const {
    // Entries are only ever appended: each is looked at once.
    auto& originals = module_state().originals;
    while (slot_ < 0 && scanned_ < originals.size()) {
        if (originals[scanned_].name == name_) slot_ = static_cast<int>(scanned_);
        ++scanned_;
    }
    return slot_;
}

PyObject* LateFn::original() const {
    int i = slot();
    return i < 0 ? nullptr : module_state().originals[static_cast<std::size_t>(i)].object;
}

bool LateFn::own(handle obj) const {
    PyObject* o = original();
    return o && o == obj.ptr();
}

static std::string dotted(const char* module, const char* attr) { return std::string(module) + "." + attr; }

LateAttr::LateAttr(const char* module, const char* attr)
    : module_(module), original_(dotted(module, attr).c_str()), attr_(PyUnicode_InternFromString(attr)) {}

void LateAttr::capture() const {
    object m = steal(PyImport_Import(module_.name().ptr()));
    keep_original(module_.name(), m);
    keep_original(original_.name(), get_attr(m, handle(attr_)));
}

// ---------------------------------------------------------------- the namespace

object global(handle name) {
    PyObject* v = PyDict_GetItemWithError(module_state().globals, name.ptr());
    if (v) return borrow(v);
    if (PyErr_Occurred()) throw_py();
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.ptr());
    throw_py();
}

object global_or(handle name, handle dflt) {
    PyObject* v = PyDict_GetItemWithError(module_state().globals, name.ptr());
    if (v) return borrow(v);
    if (PyErr_Occurred()) throw_py();
    return borrow(dflt.ptr());
}

void set_global(handle name, handle value) { check_int(PyDict_SetItem(module_state().globals, name.ptr(), value.ptr())); }

object eval_in_module(const std::string& expr) {
    PyObject* g = module_state().globals;
    return steal(PyRun_String(expr.c_str(), Py_eval_input, g, g));
}

object st_module() { return import_module("tarnwicket.search_templates"); }

object st_attr_or_none(handle name) { return get_attr_or_none(st_module(), name); }

}  // namespace tw
