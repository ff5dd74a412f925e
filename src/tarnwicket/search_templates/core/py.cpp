#include "core/py.hpp"


namespace tw {

void raise_from(handle exc, handle cause) {
    // PyException_SetCause steals the reference to the cause.
    Py_INCREF(cause.ptr());
    PyException_SetCause(exc.ptr(), cause.ptr());
    Py_INCREF(cause.ptr());
    PyException_SetContext(exc.ptr(), cause.ptr());
    raise_obj(exc);
}

std::string utf8(handle s) {
    Py_ssize_t n = 0;
    const char* p = PyUnicode_AsUTF8AndSize(s.ptr(), &n);
    if (!p) throw_py();
    return std::string(p, (std::size_t)n);
}

object ftext(std::initializer_list<handle> parts) {
    object pieces = steal(PyTuple_New((Py_ssize_t)parts.size()));
    Py_ssize_t i = 0;
    for (auto p : parts) PyTuple_SET_ITEM(pieces.ptr(), i++, steal(PyObject_Format(p.ptr(), nullptr)).release().ptr());
    object empty = steal(PyUnicode_New(0, 0));
    return steal(PyUnicode_Join(empty.ptr(), pieces.ptr()));
}

object py_str(handle o) { return steal(PyObject_Str(o.ptr())); }
object py_repr(handle o) { return steal(PyObject_Repr(o.ptr())); }
std::string to_std(handle o) { return utf8(py_str(o)); }
std::string repr_std(handle o) { return utf8(py_repr(o)); }

bool truthy(handle o) { return check_int(PyObject_IsTrue(o.ptr())) == 1; }

object get_attr_or(handle o, handle name, handle dflt) {
    PyObject* r = nullptr;
    int rc = lookup_attr(o, name, &r);
    if (rc < 0) throw_py();
    if (rc == 0) return borrow(dflt.ptr());
    return steal(r);
}

object dict_get(handle d, handle key, handle dflt) {
    if (PyDict_CheckExact(d.ptr())) {
        PyObject* v = PyDict_GetItemWithError(d.ptr(), key.ptr());
        if (v) return borrow(v);
        if (PyErr_Occurred()) throw_py();
        return borrow(dflt.ptr());
    }
    return mapping_get(d, key, dflt);
}

object mapping_get(handle m, handle key, handle dflt) {
    PyObject* argv[3] = {m.ptr(), key.ptr(), dflt.ptr()};
    return steal(PyObject_VectorcallMethod(ID("get").ptr(), argv, 3 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

namespace {

// Arguments of one vectorcall laid out on the stack: slot 0 is the receiver (or
// free for PY_VECTORCALL_ARGUMENTS_OFFSET), then positionals, then keyword values.
struct CallFrame {
    static constexpr std::size_t kMax = 24;
    PyObject* argv[kMax];
    std::size_t nargs = 0;
    object kwnames;

    CallFrame(PyObject* receiver, std::initializer_list<handle> args,
              std::initializer_list<std::pair<handle, handle>> kwargs) {
        if (1 + args.size() + kwargs.size() > kMax) raise(PyExc_SystemError, "too many arguments for one call");
        argv[0] = receiver;
        std::size_t n = 1;
        for (auto a : args) argv[n++] = a.ptr();
        for (auto& kv : kwargs) argv[n++] = kv.second.ptr();
        nargs = args.size();
        if (kwargs.size()) {
            kwnames = steal(check(PyTuple_New(static_cast<Py_ssize_t>(kwargs.size()))));
            Py_ssize_t i = 0;
            for (auto& kv : kwargs) PyTuple_SET_ITEM(kwnames.ptr(), i++, Py_NewRef(kv.first.ptr()));
        }
    }
    PyObject* names() const { return kwnames ? kwnames.ptr() : nullptr; }
};

}  // namespace

object call(handle f, std::initializer_list<handle> args) {
    CallFrame c(nullptr, args, {});
    return steal(PyObject_Vectorcall(f.ptr(), c.argv + 1, c.nargs | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

object call_kw(handle f, std::initializer_list<handle> args,
               std::initializer_list<std::pair<handle, handle>> kwargs) {
    CallFrame c(nullptr, args, kwargs);
    return steal(PyObject_Vectorcall(f.ptr(), c.argv + 1, c.nargs | PY_VECTORCALL_ARGUMENTS_OFFSET, c.names()));
}

object call_method(handle o, handle name, std::initializer_list<handle> args) {
    CallFrame c(o.ptr(), args, {});
    return steal(PyObject_VectorcallMethod(name.ptr(), c.argv, (1 + c.nargs) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

object call_method_kw(handle o, handle name, std::initializer_list<handle> args,
                      std::initializer_list<std::pair<handle, handle>> kwargs) {
    CallFrame c(o.ptr(), args, kwargs);
    return steal(PyObject_VectorcallMethod(name.ptr(), c.argv, (1 + c.nargs) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                           c.names()));
}

object call_star(handle f, handle args_tuple, handle kwargs_dict) {
    PyObject* kw = (kwargs_dict && !is_none(kwargs_dict) && PyDict_GET_SIZE(kwargs_dict.ptr()) > 0) ? kwargs_dict.ptr() : nullptr;
    return steal(PyObject_Call(f.ptr(), args_tuple.ptr(), kw));
}

Method::Method(handle self, handle name) : self_(self) {
    PyObject* fn = nullptr;
    unbound_ = _PyObject_GetMethod(self.ptr(), name.ptr(), &fn) == 1;
    fn_ = steal(fn);
}

object Method::call_kw(std::initializer_list<handle> args,
                       std::initializer_list<std::pair<handle, handle>> kwargs) const {
    CallFrame c(self_.ptr(), args, kwargs);
    if (unbound_) return steal(PyObject_Vectorcall(fn_.ptr(), c.argv, 1 + c.nargs, c.names()));
    return steal(PyObject_Vectorcall(fn_.ptr(), c.argv + 1, c.nargs | PY_VECTORCALL_ARGUMENTS_OFFSET, c.names()));
}

object Method::operator()(std::initializer_list<handle> args) const { return call_kw(args, {}); }

object import_attr(const char* module, handle attr) {
    object m = import_module(module);
    PyObject* r = nullptr;
    if (check_int(lookup_attr(m, attr, &r)) == 1) return steal(r);
    // A missing name is an ImportError, as the `from` statement raises it.
    object modname = str_of(module);
    object path = get_attr_or_none(m, ID("__file__"));
    object msg = is_none(path) ? steal(PyUnicode_FromFormat("cannot import name %R from %R (unknown location)",
                                                           attr.ptr(), modname.ptr()))
                               : steal(PyUnicode_FromFormat("cannot import name %R from %R (%S)", attr.ptr(),
                                                           modname.ptr(), path.ptr()));
    PyErr_SetImportError(msg.ptr(), modname.ptr(), path.ptr());
    throw_py();
}

object tuple_of(std::initializer_list<handle> items) {
    object t = steal(PyTuple_New((Py_ssize_t)items.size()));
    Py_ssize_t i = 0;
    for (auto it : items) {
        Py_INCREF(it.ptr());
        PyTuple_SET_ITEM(t.ptr(), i++, it.ptr());
    }
    return t;
}

object dict_copy(handle d) {
    if (PyDict_Check(d.ptr())) return steal(PyDict_Copy(d.ptr()));
    return call(handle(reinterpret_cast<PyObject*>(&PyDict_Type)), {d});
}
object dict_items_iter(handle d) {
    object items = call(get_attr(handle(reinterpret_cast<PyObject*>(&PyDict_Type)), ID("items")), {d});
    return steal(PyObject_GetIter(items.ptr()));
}
object list_from(handle iterable) { return steal(PySequence_List(iterable.ptr())); }

double as_double(handle o) {
    if (PyFloat_CheckExact(o.ptr())) return PyFloat_AS_DOUBLE(o.ptr());
    object f = steal(PyNumber_Float(o.ptr()));
    return PyFloat_AS_DOUBLE(f.ptr());
}

bool try_double(handle o, double& out) {
    if (PyFloat_CheckExact(o.ptr())) {
        out = PyFloat_AS_DOUBLE(o.ptr());
        return true;
    }
    PyObject* f = PyNumber_Float(o.ptr());
    if (!f) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
            PyErr_ExceptionMatches(PyExc_OverflowError)) {
            PyErr_Clear();
            return false;
        }
        throw_py();
    }
    out = PyFloat_AS_DOUBLE(f);
    Py_DECREF(f);
    return true;
}

object py_int(handle o) {
    if (PyLong_CheckExact(o.ptr())) return borrow(o.ptr());
    return steal(PyNumber_Long(o.ptr()));
}

object py_round_int(double x) {
    object f = float_of(x);
    object builtins = steal(PyImport_ImportModule("builtins"));
    return call(get_attr(builtins, ID("round")), {f});
}

}  // namespace tw
