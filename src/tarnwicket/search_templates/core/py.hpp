// Thin layer over the Python C API and pybind11 handles, so that the module's
// logic reads close to the Python behaviour it must reproduce.
//
// Conventions used throughout the module:
//   * a failing C-API call is turned into `throw py::error_already_set()`;
//   * `object` owns a reference, `handle` borrows one;
//   * names are interned once per call site with ID("name").
#pragma once

#include "core/python.hpp"

#include <cmath>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace tw {

namespace py = pybind11;
using py::handle;
using py::object;

// ---------------------------------------------------------------- interned names

template <std::size_t N>
struct fixed_string {
    char data[N]{};
    constexpr fixed_string(const char (&s)[N]) {
        for (std::size_t i = 0; i < N; ++i) data[i] = s[i];
    }
};

template <fixed_string S>
inline PyObject* interned() {
    static PyObject* s = PyUnicode_InternFromString(S.data);
    return s;
}

// A borrowed, immortal-for-our-purposes interned str for a literal name.
#define ID(lit) (::tw::handle(::tw::interned<lit>()))

// ---------------------------------------------------------------- errors

[[noreturn]] inline void throw_py() { throw py::error_already_set(); }

inline PyObject* check(PyObject* p) {
    if (!p) throw_py();
    return p;
}
inline int check_int(int r) {
    if (r < 0) throw_py();
    return r;
}

inline object steal(PyObject* p) { return py::reinterpret_steal<object>(check(p)); }
inline object borrow(PyObject* p) { return py::reinterpret_borrow<object>(p); }
inline object none() { return py::none(); }

[[noreturn]] inline void raise(handle type, const std::string& msg) {
    PyErr_SetString(type.ptr(), msg.c_str());
    throw_py();
}
// Raise an already constructed exception instance.
[[noreturn]] inline void raise_obj(handle exc) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
    throw_py();
}
// `raise exc from cause`
[[noreturn]] void raise_from(handle exc, handle cause);

// True when the captured error is an instance of `type` (a class or tuple).
inline bool matches(const py::error_already_set& e, handle type) {
    return PyErr_GivenExceptionMatches(e.type().ptr(), type.ptr()) != 0;
}
// `except Exception` — the ordinary exceptions, not SystemExit and friends.
inline bool ordinary(const py::error_already_set& e) { return matches(e, PyExc_Exception); }

// Exception instance of a captured error (normalised).
inline object exc_value(const py::error_already_set& e) { return e.value(); }

// ---------------------------------------------------------------- conversions

inline object str_of(const std::string& s) { return steal(PyUnicode_FromStringAndSize(s.data(), (Py_ssize_t)s.size())); }
inline object int_of(long long v) { return steal(PyLong_FromLongLong(v)); }
inline object float_of(double v) { return steal(PyFloat_FromDouble(v)); }
inline object bool_of(bool v) { return borrow(v ? Py_True : Py_False); }

// An f-string: the parts formatted with format(part, "") and joined. Lone
// surrogates and NULs pass through, as in Python.
object ftext(std::initializer_list<handle> parts);

// `raise exc_type(text)` with a text that is already a Python str.
[[noreturn]] inline void raise_text(handle exc_type, handle text) {
    PyErr_SetObject(exc_type.ptr(), text.ptr());
    throw_py();
}

// The interpreter's recursion guard around one level of a walker of nested
// data, so that deep or cyclic nesting ends in RecursionError. `where` follows
// "maximum recursion depth exceeded" in the message.
class RecursionGuard {
public:
    explicit RecursionGuard(const char* where) {
        if (Py_EnterRecursiveCall(where)) throw_py();
    }
    ~RecursionGuard() { Py_LeaveRecursiveCall(); }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
};

std::string to_std(handle o);          // str(o) as UTF-8
std::string repr_std(handle o);        // repr(o) as UTF-8
std::string utf8(handle str_obj);      // contents of an exact str
object py_str(handle o);               // str(o)
object py_repr(handle o);              // repr(o)
bool truthy(handle o);                 // bool(o), raising on error

inline bool is_none(handle o) { return o.ptr() == Py_None; }
inline bool is_dict(handle o) { return PyDict_Check(o.ptr()); }
inline bool is_list(handle o) { return PyList_Check(o.ptr()); }
inline bool is_tuple(handle o) { return PyTuple_Check(o.ptr()); }
inline bool is_str(handle o) { return PyUnicode_Check(o.ptr()); }
inline bool is_bool(handle o) { return PyBool_Check(o.ptr()); }
inline bool is_int(handle o) { return PyLong_Check(o.ptr()); }      // bools included
inline bool is_float(handle o) { return PyFloat_Check(o.ptr()); }
inline bool is_nonempty_str(handle o) { return is_str(o) && PyUnicode_GET_LENGTH(o.ptr()) > 0; }
inline bool is_instance(handle o, handle cls) { return check_int(PyObject_IsInstance(o.ptr(), cls.ptr())) == 1; }

// ---------------------------------------------------------------- attributes and items

// getattr(o, name) that does not raise AttributeError: 1 found (*r a new
// reference), 0 absent, -1 error. The one place the interpreter's name for it is spelt.
inline int lookup_attr(handle o, handle name, PyObject** r) {
#if PY_VERSION_HEX >= 0x030D0000
    return PyObject_GetOptionalAttr(o.ptr(), name.ptr(), r);
#else
    return _PyObject_LookupAttr(o.ptr(), name.ptr(), r);
#endif
}

inline object get_attr(handle o, handle name) { return steal(PyObject_GetAttr(o.ptr(), name.ptr())); }
// get_attr(o, name, default): only AttributeError falls back to the default.
object get_attr_or(handle o, handle name, handle dflt);
inline object get_attr_or_none(handle o, handle name) { return get_attr_or(o, name, Py_None); }
inline void set_attr(handle o, handle name, handle v) { check_int(PyObject_SetAttr(o.ptr(), name.ptr(), v.ptr())); }
inline bool has_attr(handle o, handle name) {
    PyObject* r = nullptr;
    int rc = lookup_attr(o, name, &r);
    Py_XDECREF(r);
    return check_int(rc) == 1;
}

// dict.get(key, default) for an exact or sub-classed dict.
object dict_get(handle d, handle key, handle dflt = Py_None);
// mapping.get(key, default) through the object's own `get` method.
object mapping_get(handle m, handle key, handle dflt);
inline object getitem(handle o, handle key) { return steal(PyObject_GetItem(o.ptr(), key.ptr())); }
inline void setitem(handle o, handle key, handle v) { check_int(PyObject_SetItem(o.ptr(), key.ptr(), v.ptr())); }
inline bool contains(handle container, handle key) { return check_int(PySequence_Contains(container.ptr(), key.ptr())) == 1; }

// ---------------------------------------------------------------- calls

// f(*args)
object call(handle f, std::initializer_list<handle> args = {});
// f(*args, **{names[i]: kwvals[i]})
object call_kw(handle f, std::initializer_list<handle> args,
               std::initializer_list<std::pair<handle, handle>> kwargs);
// o.name(*args)
object call_method(handle o, handle name, std::initializer_list<handle> args = {});
object call_method_kw(handle o, handle name, std::initializer_list<handle> args,
                      std::initializer_list<std::pair<handle, handle>> kwargs);
// f(*args_tuple, **kwargs_dict)
object call_star(handle f, handle args_tuple, handle kwargs_dict);

// `self.name` looked up once for a call, as Python looks up `self.name(...)`:
// a method descriptor of the class that the instance does not shadow is kept
// unbound (no bound method is made), anything else is the attribute itself.
class Method {
public:
    Method(handle self, handle name);
    object operator()(std::initializer_list<handle> args = {}) const;
    object call_kw(std::initializer_list<handle> args, std::initializer_list<std::pair<handle, handle>> kwargs) const;
    // True when the lookup found the class's method descriptor of the C function `fn`.
    bool is_c_function(PyCFunction fn) const {
        return unbound_ && Py_IS_TYPE(fn_.ptr(), &PyMethodDescr_Type) &&
               reinterpret_cast<PyMethodDescrObject*>(fn_.ptr())->d_method->ml_meth == fn;
    }

private:
    handle self_;
    object fn_;
    bool unbound_;
};

// ---------------------------------------------------------------- imports

// import `name` through the host's import system (sys.modules first), each time.
inline object import_module(const char* name) { return steal(PyImport_ImportModule(name)); }
// `from module import attr`: a missing name raises ImportError.
object import_attr(const char* module, handle attr);

// ---------------------------------------------------------------- containers

// A new empty dict sized for `n` items: a new reference, or null with an error set.
inline PyObject* new_presized_dict_raw(Py_ssize_t n) {
#if PY_VERSION_HEX >= 0x030D0000
    (void)n;
    return PyDict_New();
#else
    return _PyDict_NewPresized(n);
#endif
}

inline object new_dict() { return steal(PyDict_New()); }
inline object new_list(Py_ssize_t n = 0) { return steal(PyList_New(n)); }
inline void list_append(handle l, handle v) { check_int(PyList_Append(l.ptr(), v.ptr())); }
inline void dict_set(handle d, handle k, handle v) { check_int(PyDict_SetItem(d.ptr(), k.ptr(), v.ptr())); }
object tuple_of(std::initializer_list<handle> items);
object dict_copy(handle d);           // dict(d): a copy of a dict, else the dict type called on it
object dict_items_iter(handle d);     // iter(dict.items(d)): a change of size during the walk raises as the host's does
object list_from(handle iterable);    // list(iterable)

// ---------------------------------------------------------------- numbers

// float(o) via the host; raises as float() does.
double as_double(handle o);
// float(o); returns false on TypeError/ValueError/OverflowError (other errors raise).
bool try_double(handle o, double& out);
// int(o) via the host; raises as int() does.
object py_int(handle o);
// Python's round(x) for a float, returned as int object (raises like round()).
object py_round_int(double x);

// ---------------------------------------------------------------- time

double monotonic();
double wall_time();

}  // namespace tw
