// Module namespace access, Python-shaped function and method registration,
// class creation and logging.
//
// Functions are registered with a text signature such as
//     "search(template, n_jobs=1)"
//     "stop($self, join_timeout=2.0)"
//     "_safe_update_nudge(trigger, **context)"
// The signature drives argument binding (positional or keyword, defaults,
// *args, **kwargs, keyword-only after `*`) with the host's own error texts,
// and becomes `__text_signature__`, so `inspect.signature` sees it.
#pragma once

#include "core/py.hpp"

#include <array>

namespace tw {

// ---------------------------------------------------------------- module namespace

extern PyObject* g_module;   // tarnwicket.search_templates
extern PyObject* g_globals;  // its __dict__

// Read a module global at the moment of use; raises NameError when absent.
object global(handle name);
// Read a module global, or `dflt` when absent.
object global_or(handle name, handle dflt);
inline object global_or_none(handle name) { return global_or(name, Py_None); }
void set_global(handle name, handle value);
inline void set_global(const char* name, handle value) { set_global(handle(PyUnicode_InternFromString(name)), value); }

// The module object as imported by name through sys.modules, at this moment.
object st_module();
// Attribute of the module imported by name, none when absent.
object st_attr_or_none(handle name);

// ---------------------------------------------------------------- bound arguments

struct Signature;

struct Args {
    PyObject* self = nullptr;                 // instance for methods, else null
    std::array<PyObject*, 16> slot{};         // borrowed, in declared order
    object varargs;                           // tuple when declared
    object varkw;                             // dict when declared
    handle operator[](std::size_t i) const { return handle(slot[i]); }
    handle me() const { return handle(self); }
};

using Impl = object (*)(Args&);

struct Param {
    std::string name;
    object dflt;           // null when required
    bool kwonly = false;
};

struct Signature {
    std::string name;      // function name for error texts
    std::vector<Param> params;
    bool has_self = false;
    bool has_varargs = false;
    bool has_varkw = false;
    std::size_t n_positional = 0;   // params that may be given by position
    std::vector<PyObject*> interned_names;
    void parse(const std::string& text);
    void bind(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Args& out) const;
};

// ---------------------------------------------------------------- registration

namespace detail {
void translate_current_cpp_exception();
PyMethodDef* make_def(const char* text_sig, PyCFunction fn, const char* doc, Signature*& sig_out);
object new_function(PyMethodDef* def, const char* module);
object new_method(handle cls, PyMethodDef* def);

template <Impl F>
inline Signature* sig_of = nullptr;

template <Impl F>
PyObject* tramp(PyObject* self, PyObject* const* args, Py_ssize_t nargsf, PyObject* kwnames) {
    Args a;
    try {
        sig_of<F>->bind(self, args, PyVectorcall_NARGS(nargsf), kwnames, a);
        object r = F(a);
        return r.release().ptr();
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    } catch (...) {
        translate_current_cpp_exception();
        return nullptr;
    }
}

template <Impl F>
PyMethodDef* def_for(const char* text_sig, const char* doc) {
    return make_def(text_sig, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&tramp<F>)), doc, sig_of<F>);
}
}  // namespace detail

// A free function object (not placed anywhere), e.g. for properties or staticmethods.
template <Impl F>
object make_function(const char* text_sig, const char* doc = nullptr, const char* module = "tarnwicket.search_templates") {
    return detail::new_function(detail::def_for<F>(text_sig, doc), module);
}
// A module-level function. `text_sig` like "name(a, b=None)".
template <Impl F>
object def_function(handle module, const char* text_sig, const char* doc = nullptr) {
    object fn = make_function<F>(text_sig, doc);
    set_attr(module, get_attr(fn, ID("__name__")), fn);
    return fn;
}
// A method added to `cls`; `text_sig` like "name($self, a)". Returns the descriptor.
template <Impl F>
object def_method(handle cls, const char* text_sig, const char* doc = nullptr) {
    object d = detail::new_method(cls, detail::def_for<F>(text_sig, doc));
    set_attr(cls, get_attr(d, ID("__name__")), d);
    return d;
}
// A staticmethod on cls; `text_sig` without $self.
template <Impl F>
object def_static(handle cls, const char* text_sig, const char* doc = nullptr) {
    object fn = make_function<F>(text_sig, doc);
    object sm = steal(PyStaticMethod_New(fn.ptr()));
    set_attr(cls, get_attr(fn, ID("__name__")), sm);
    return fn;
}
// property(fget, fset) on cls; the accessors take the instance as their first argument.
void add_property(handle cls, const char* name, handle fget, handle fset, const char* doc = nullptr);
template <Impl Get>
void def_property(handle cls, const char* name, const char* get_sig, const char* doc = nullptr) {
    add_property(cls, name, make_function<Get>(get_sig), handle(), doc);
}
template <Impl Get, Impl Set>
void def_property(handle cls, const char* name, const char* get_sig, const char* set_sig, const char* doc = nullptr) {
    add_property(cls, name, make_function<Get>(get_sig), make_function<Set>(set_sig), doc);
}

// A plain class `name(base)` in this module, created through the host's `type`.
object make_class(const char* name, handle base = handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)), const char* doc = nullptr);
// An exception class deriving from `base`.
object make_exception(const char* name, handle base, const char* doc = nullptr);
// A dataclass built by the host's dataclasses.make_dataclass.
// fields: {name, default-expression}; a default expression "[]" means a fresh list.
object make_record(const char* name, std::initializer_list<std::pair<const char*, const char*>> fields, const char* doc = nullptr);

// ---------------------------------------------------------------- start-up errors

// SearchError(code, advice, message, SearchStatus(running=False)), the form of
// every error raised at the caller before a search runs.
object startup_error(const char* code, const char* advice, handle message);

// ---------------------------------------------------------------- locks

// `with lock:` over a host lock object (Lock or RLock); waiting releases the GIL.
class Locked {
public:
    explicit Locked(handle lock) : lock_(borrow(lock.ptr())) { call_method(lock_, ID("acquire")); }
    ~Locked() {
        if (!may_touch_objects()) return;  // a thread unwound at exit: the lock dies with the process
        PyObject* r = PyObject_CallMethodNoArgs(lock_.ptr(), ID("release").ptr());
        if (!r) PyErr_WriteUnraisable(lock_.ptr());
        Py_XDECREF(r);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    object lock_;
};

// ---------------------------------------------------------------- logging

// The module logger (module global `logger`, read at each use).
object logger();
// logger.<level>(fmt, *args)
void log(const char* level, const char* fmt, std::initializer_list<handle> args = {});
inline void log_info(const char* fmt, std::initializer_list<handle> args = {}) { log("info", fmt, args); }
inline void log_warning(const char* fmt, std::initializer_list<handle> args = {}) { log("warning", fmt, args); }
inline void log_debug(const char* fmt, std::initializer_list<handle> args = {}) { log("debug", fmt, args); }
// logger.error(msg, exc_info=True) while handling `e` (the traceback is attached).
void log_error_exc(const char* msg, const py::error_already_set& e);
// True when logger.isEnabledFor(level) — used to skip building costly arguments.
bool log_enabled(int level);

// Python's str.format-free composition helpers.
std::string cat(std::initializer_list<std::string_view> parts);

// ---------------------------------------------------------------- module set-up hooks

// Each subsystem registers its names through one of these, called at import.
void register_constants(handle m);
void register_state(handle m);
void register_records(handle m);
void register_metric_contract(handle m);
void register_vocabulary(handle m);
void register_sandbox(handle m);
void register_payload(handle m);
void register_binding(handle m);
void register_context(handle m);
void register_handle(handle m);
void register_lifecycle(handle m);
void register_preflight(handle m);
void register_management(handle m);
void register_generator(handle m);
void register_collaborators(handle m);

}  // namespace tw
