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
    ModuleState::Record layout{nullptr, nullptr, {}};
    auto keep = [&](const char* field, handle dflt, bool factory) {
        PyObject* n = check(PyUnicode_InternFromString(field));
        layout.fields.push_back({n, dflt.inc_ref().ptr(), factory});
    };
    try {
        for (auto& f : fields) {
            std::string expr = f.second;
            object fld;
            if (expr == "[]" || expr == "{}") {
                handle factory(reinterpret_cast<PyObject*>(expr == "[]" ? &PyList_Type : &PyDict_Type));
                fld = call_kw(field_fn, {}, {{ID("default_factory"), factory}});
                keep(f.first, factory, true);
            } else {
                object dflt = eval_in_module(expr);
                fld = call_kw(field_fn, {}, {{ID("default"), dflt}});
                keep(f.first, dflt, false);
            }
            list_append(specs, tuple_of({str_of(f.first), any, fld}));
        }
        object cls = finish_class(call(get_attr(dc, ID("make_dataclass")), {str_of(name), specs}), name, doc);
        PyObject* init = PyDict_GetItemWithError(reinterpret_cast<PyTypeObject*>(cls.ptr())->tp_dict, ID("__init__").ptr());
        if (!init) {
            if (PyErr_Occurred()) throw_py();
            raise(PyExc_TypeError, std::string("record class without __init__: ") + name);
        }
        layout.init = Py_NewRef(init);
        layout.cls = cls.inc_ref().ptr();
        module_state().records.push_back(std::move(layout));
        return cls;
    } catch (...) {
        for (auto& f : layout.fields) {
            Py_DECREF(f.name);
            Py_DECREF(f.dflt);
        }
        Py_XDECREF(layout.init);
        throw;
    }
}

// The layout of `cls` while it is still as make_record made it, else null.
static const ModuleState::Record* record_layout(handle cls) {
    for (const auto& r : module_state().records) {
        if (r.cls != cls.ptr()) continue;
        auto* type = reinterpret_cast<PyTypeObject*>(cls.ptr());
        if (!Py_IS_TYPE(cls.ptr(), &PyType_Type) || type->tp_new != PyBaseObject_Type.tp_new) return nullptr;
        PyObject* init = PyDict_GetItemWithError(type->tp_dict, ID("__init__").ptr());
        if (!init && PyErr_Occurred()) throw_py();
        return init == r.init ? &r : nullptr;
    }
    return nullptr;
}

object new_record(handle cls, std::initializer_list<std::pair<handle, handle>> fields) {
    const ModuleState::Record* layout = record_layout(cls);
    constexpr std::size_t kMaxFields = 32;
    if (!layout || layout->fields.size() > kMaxFields) return call_kw(cls, {}, fields);
    // Gather every value in field order first: nothing here runs Python code
    // but the default factories (list() or dict()), so the layout stays put.
    // Names and values are held as strong references in two plain arrays: a
    // record has a handful of fields, and the call is on the evaluation path.
    object init = borrow(layout->init);
    PyObject* names[kMaxFields];
    PyObject* values[kMaxFields];
    std::size_t n = 0, matched = 0;
    struct Release {
        PyObject** names;
        PyObject** values;
        std::size_t& n;
        ~Release() {
            for (std::size_t i = 0; i < n; ++i) {
                Py_DECREF(names[i]);
                Py_DECREF(values[i]);
            }
        }
    } release{names, values, n};
    for (const auto& f : layout->fields) {
        PyObject* value = nullptr;
        for (auto& kv : fields) {
            if (kv.first.ptr() == f.name) {
                value = kv.second.inc_ref().ptr();
                ++matched;
                break;
            }
        }
        if (!value) value = f.factory ? call(handle(f.dflt)).release().ptr() : handle(f.dflt).inc_ref().ptr();
        names[n] = handle(f.name).inc_ref().ptr();
        values[n++] = value;
    }
    // A name that is not a field: let the class's own __init__ say so.
    if (matched != fields.size()) return call_kw(cls, {}, fields);
    // cls(**fields) is object.__new__(cls) and then the class's own __init__.
    auto* type = reinterpret_cast<PyTypeObject*>(cls.ptr());
    object no_args = steal(PyTuple_New(0));
    object obj = steal(type->tp_new(type, no_args.ptr(), nullptr));
    if (type->tp_setattro == PyObject_GenericSetAttr) {
        // That __init__ only assigns each field in order: do the same here.
        for (std::size_t i = 0; i < n; ++i) check_int(PyObject_GenericSetAttr(obj.ptr(), names[i], values[i]));
        return obj;
    }
    PyObject* argv[kMaxFields + 1];
    argv[0] = obj.ptr();
    for (std::size_t i = 0; i < n; ++i) argv[i + 1] = values[i];
    object result = steal(PyObject_Vectorcall(init.ptr(), argv, n + 1, nullptr));
    if (!is_none(result)) {
        PyErr_Format(PyExc_TypeError, "__init__() should return None, not '%.200s'", Py_TYPE(result.ptr())->tp_name);
        throw_py();
    }
    return obj;
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
