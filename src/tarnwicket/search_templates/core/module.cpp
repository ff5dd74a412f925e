#include "core/module.hpp"

#include <cstring>
#include <new>
#include <stdexcept>

namespace tw {

static object finish_class(object cls, const char* name, const char* doc) {
    set_attr(cls, ID("__module__"), str_of("tarnwicket.search_templates"));
    set_attr(cls, ID("__qualname__"), str_of(name));
    if (doc) set_attr(cls, ID("__doc__"), str_of(doc));
    return cls;
}

object make_class(const char* name, handle base, const char* doc) {
    object type = borrow(reinterpret_cast<PyObject*>(&PyType_Type));
    object ns = new_dict();
    dict_set(ns, ID("__module__"), str_of("tarnwicket.search_templates"));
    object cls = call(type, {str_of(name), tuple_of({base}), ns});
    return finish_class(std::move(cls), name, doc);
}

object make_exception(const char* name, handle base, const char* doc) { return make_class(name, base, doc); }

object make_record(const char* name, std::initializer_list<std::pair<const char*, const char*>> fields, const char* doc) {
    object dc = import_module("dataclasses");
    object field_fn = get_attr(dc, ID("field"));
    object any = import_attr("typing", ID("Any"));
    object specs = new_list();
    for (auto& f : fields) {
        std::string expr = f.second;
        object fld;
        if (expr == "[]") {
            fld = call_kw(field_fn, {}, {{ID("default_factory"), handle(reinterpret_cast<PyObject*>(&PyList_Type))}});
        } else if (expr == "{}") {
            fld = call_kw(field_fn, {}, {{ID("default_factory"), handle(reinterpret_cast<PyObject*>(&PyDict_Type))}});
        } else {
            fld = call_kw(field_fn, {}, {{ID("default"), eval_in_module(expr)}});
        }
        list_append(specs, tuple_of({str_of(f.first), any, fld}));
    }
    object cls = call(get_attr(dc, ID("make_dataclass")), {str_of(name), specs});
    return finish_class(std::move(cls), name, doc);
}

// ---------------------------------------------------------------- logging

object logger() { return global(ID("logger")); }

void log(const char* level, const char* fmt, std::initializer_list<handle> args) {
    object lg = logger();
    PyObject* argv[18];
    object f = str_of(fmt);
    argv[0] = lg.ptr();
    argv[1] = f.ptr();
    std::size_t n = 2;
    for (auto a : args) argv[n++] = a.ptr();
    object lvl = steal(PyUnicode_InternFromString(level));
    steal(PyObject_VectorcallMethod(lvl.ptr(), argv, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

void log_error_exc(const char* msg, const py::error_already_set& e) {
    // Make `e` the exception being handled, so exc_info=True attaches its traceback.
    PyObject *ot, *ov, *otb;
    PyErr_GetExcInfo(&ot, &ov, &otb);
    object type = e.type(), value = e.value(), tb = e.trace();
    PyErr_SetExcInfo(type.inc_ref().ptr(), value.inc_ref().ptr(), tb ? tb.inc_ref().ptr() : nullptr);
    PyObject* r = nullptr;
    {
        object lg = logger();
        object m = str_of(msg);
        PyObject* argv[3] = {lg.ptr(), m.ptr(), Py_True};
        object kwn = tuple_of({ID("exc_info")});
        r = PyObject_VectorcallMethod(ID("error").ptr(), argv, 2 | PY_VECTORCALL_ARGUMENTS_OFFSET, kwn.ptr());
    }
    PyErr_SetExcInfo(ot, ov, otb);
    if (!r) throw_py();
    Py_DECREF(r);
}

bool log_enabled(int level) {
    object lg = logger();
    object lv = int_of(level);
    return truthy(call_method(lg, ID("isEnabledFor"), {lv}));
}

std::string cat(std::initializer_list<std::string_view> parts) {
    std::string s;
    for (auto p : parts) s.append(p);
    return s;
}

}  // namespace tw
