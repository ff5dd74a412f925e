// Registration of the module's names: a binding line names a typed C++
// function and the Python signature it is called with.
//
//     object search(handle template_, handle n_jobs);
//     def_function<search>(m, "search(template, n_jobs=1)");
//
//     object stop(handle self, handle join_timeout);
//     def_method<stop>(cls, "stop($self, join_timeout=2.0)");
//
//     object safe_update_nudge(handle trigger, handle context);   // context: the **kwargs dict
//     def_function<safe_update_nudge>(m, "_safe_update_nudge(trigger, **context)");
//
// The signature text drives argument binding (positional or keyword, defaults,
// *args, **kwargs, keyword-only after `*`) with the host's own error texts, and
// becomes `__text_signature__`, so `inspect.signature` sees it. The C++
// function takes one `handle` per name in it, in order: `$self` first, then
// the parameters, then the *args tuple, then the **kwargs dict. It returns
// `object`, `bool` or nothing (None). Registration checks that the two agree.
//
// Module-level functions are recorded as the originals of their names, so
// every one of them can be bound late (core/late.hpp).
#pragma once

#include "core/state.hpp"

#include <array>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace tw {

struct Param {
    std::string name;
    object dflt;           // null when required
    bool kwonly = false;
};

struct Signature {
    static constexpr std::size_t max_params = 16;
    std::string name;      // function name for error texts
    std::vector<Param> params;
    bool has_self = false;
    bool has_varargs = false;
    bool has_varkw = false;
    std::size_t n_positional = 0;   // params that may be given by position
    std::vector<PyObject*> interned_names;

    void parse(const std::string& text);
    // The C++ arguments the signature binds: $self, parameters, *args, **kwargs.
    std::size_t arity() const { return (has_self ? 1 : 0) + params.size() + (has_varargs ? 1 : 0) + (has_varkw ? 1 : 0); }

    // The bound arguments, borrowed, in the order the C++ function takes them.
    struct Bound {
        std::array<PyObject*, max_params + 3> argv{};
        object varargs;   // owners of the *args tuple and the **kwargs dict
        object varkw;
    };
    void bind(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Bound& out) const;
};

namespace detail {

void translate_current_cpp_exception();
PyMethodDef* make_def(const char* text_sig, PyCFunction fn, const char* doc, Signature*& sig_out, std::size_t arity);
object new_function(PyMethodDef* def, const char* module);
object new_method(handle cls, PyMethodDef* def);

// Runs `body` where C returns to the host: a C++ or Python error it throws
// becomes the pending Python error and false is returned. The host's unwinding
// of a thread at exit passes through: translate_current_cpp_exception rethrows
// it. A hand-written C entry point whose body may throw uses it (the sandbox's
// forwarding hooks throw nothing and return the C API's own failures):
//
//     PyObject* result = nullptr;
//     if (!returns_to_host([&] { result = work().release().ptr(); })) return nullptr;
template <class F>
bool returns_to_host(F&& body) {
    try {
        body();
        return true;
    } catch (...) {
        translate_current_cpp_exception();
        return false;
    }
}

template <auto F>
struct Typed;

template <class R, class... Ps, R (*F)(Ps...)>
struct Typed<F> {
    static_assert((std::is_same_v<Ps, handle> && ...), "a bound function takes handles");
    static_assert(std::is_same_v<R, object> || std::is_same_v<R, bool> || std::is_void_v<R>,
                  "a bound function returns object, bool or nothing");
    static inline Signature* sig = nullptr;

    template <std::size_t... I>
    static PyObject* invoke(const Signature::Bound& b, std::index_sequence<I...>) {
        if constexpr (std::is_void_v<R>) {
            F(handle(b.argv[I])...);
            return Py_NewRef(Py_None);
        } else if constexpr (std::is_same_v<R, bool>) {
            return Py_NewRef(F(handle(b.argv[I])...) ? Py_True : Py_False);
        } else {
            return F(handle(b.argv[I])...).release().ptr();
        }
    }

    static PyObject* tramp(PyObject* self, PyObject* const* args, Py_ssize_t nargsf, PyObject* kwnames) {
        PyObject* result = nullptr;
        returns_to_host([&] {
            Signature::Bound b;
            sig->bind(self, args, PyVectorcall_NARGS(nargsf), kwnames, b);
            result = invoke(b, std::index_sequence_for<Ps...>{});
        });
        return result;
    }

    static PyMethodDef* def(const char* text_sig, const char* doc) {
        if (sig) throw std::logic_error(std::string("bound twice: ") + text_sig);
        return make_def(text_sig, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&tramp)), doc, sig,
                        sizeof...(Ps));
    }
};

}  // namespace detail

// A free function object (not placed anywhere), e.g. for properties, hooks or staticmethods.
template <auto F>
object make_function(const char* text_sig, const char* doc = nullptr, const char* module = "tarnwicket.search_templates") {
    return detail::new_function(detail::Typed<F>::def(text_sig, doc), module);
}
// A module-level function, recorded as the original of its name. `text_sig` like "name(a, b=None)".
template <auto F>
object def_function(handle module, const char* text_sig, const char* doc = nullptr) {
    object fn = make_function<F>(text_sig, doc);
    object name = get_attr(fn, ID("__name__"));
    set_attr(module, name, fn);
    keep_original(name, fn);
    return fn;
}
// Late binding of a method: `m` was looked up as Python looks up
// `self.name(...)`. When it found the module's own F, calling F directly does
// what the call would, without the binding's round trip:
//
//     Method m(self, ID("_submission_cancelled"));
//     if (is_own<submission_cancelled>(m)) return submission_cancelled(self);
//     return truthy(m());
template <auto F>
bool is_own(const Method& m) {
    return m.is_c_function(reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&detail::Typed<F>::tramp)));
}
// A method added to `cls`; `text_sig` like "name($self, a)". Returns the descriptor.
template <auto F>
object def_method(handle cls, const char* text_sig, const char* doc = nullptr) {
    object d = detail::new_method(cls, detail::Typed<F>::def(text_sig, doc));
    set_attr(cls, get_attr(d, ID("__name__")), d);
    return d;
}
// A staticmethod on cls; `text_sig` without $self.
template <auto F>
object def_static(handle cls, const char* text_sig, const char* doc = nullptr) {
    object fn = make_function<F>(text_sig, doc);
    object sm = steal(PyStaticMethod_New(fn.ptr()));
    set_attr(cls, get_attr(fn, ID("__name__")), sm);
    return fn;
}
// property(fget, fset) on cls; the accessors take the instance as their first argument.
void add_property(handle cls, const char* name, handle fget, handle fset, const char* doc = nullptr);
template <auto Get>
void def_property(handle cls, const char* name, const char* get_sig, const char* doc = nullptr) {
    add_property(cls, name, make_function<Get>(get_sig), handle(), doc);
}
template <auto Get, auto Set>
void def_property(handle cls, const char* name, const char* get_sig, const char* set_sig, const char* doc = nullptr) {
    add_property(cls, name, make_function<Get>(get_sig), make_function<Set>(set_sig), doc);
}

}  // namespace tw
