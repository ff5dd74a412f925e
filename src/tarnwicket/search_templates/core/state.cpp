#include "core/late.hpp"

#include <ctime>
#include <string>

namespace tw {

ModuleState& module_state() {
    static ModuleState& s = *new ModuleState;  // never destroyed: no release after the interpreter is gone
    return s;
}

// ---------------------------------------------------------------- the host's clocks

static const LateAttr k_monotonic("time", "monotonic");
static const LateAttr k_time("time", "time");

// `time.<name>()`, read from the time module at each call so that a patched one
// is obeyed; while it is the host's own, the same clock is read directly and
// turned into seconds as the host turns it.
static double host_clock(const LateAttr& fn, clockid_t clock) {
    if (object f = fn.replaced()) return as_double(call(f));
    timespec ts;
    if (clock_gettime(clock, &ts) != 0) return as_double(call(fn.original()));
    const long long ns = static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
    if (ns % 1000000000LL == 0) return static_cast<double>(ns / 1000000000LL);
    return static_cast<double>(ns) / 1e9;
}

double monotonic() { return host_clock(k_monotonic, CLOCK_MONOTONIC); }
double wall_time() { return host_clock(k_time, CLOCK_REALTIME); }

void init_module_state(handle module) {
    ModuleState& s = module_state();
    s.module = module.inc_ref().ptr();
    s.globals = PyModule_GetDict(module.ptr());
    Py_INCREF(s.globals);
    k_monotonic.capture();
    k_time.capture();
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
    // Records compare by class identity: with the class gone, none can match.
    auto records = std::move(module_state().records);
    module_state().records.clear();
    for (auto& r : records) {
        for (auto& f : r.fields) {
            Py_XDECREF(f.name);
            Py_XDECREF(f.dflt);
        }
        Py_XDECREF(r.init);
        Py_XDECREF(r.cls);
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

object LateAttr::module() const {
    if (PyObject* m = module_.original()) return borrow(m);
    return steal(PyImport_Import(module_.name().ptr()));
}

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
