#include "core/module.hpp"

#include <cstring>
#include <new>
#include <stdexcept>

namespace tw {

PyObject* g_module = nullptr;
PyObject* g_globals = nullptr;

// ---------------------------------------------------------------- module namespace

object global(handle name) {
    PyObject* v = PyDict_GetItemWithError(g_globals, name.ptr());
    if (v) return borrow(v);
    if (PyErr_Occurred()) throw_py();
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.ptr());
    throw_py();
}

object global_or(handle name, handle dflt) {
    PyObject* v = PyDict_GetItemWithError(g_globals, name.ptr());
    if (v) return borrow(v);
    if (PyErr_Occurred()) throw_py();
    return borrow(dflt.ptr());
}

void set_global(handle name, handle value) { check_int(PyDict_SetItem(g_globals, name.ptr(), value.ptr())); }

object st_module() { return import_module("tarnwicket.search_templates"); }

object st_attr_or_none(handle name) { return get_attr_or_none(st_module(), name); }

// ---------------------------------------------------------------- signatures

static std::string trim(const std::string& s) {
    std::size_t a = s.find_first_not_of(" \t");
    if (a == std::string::npos) return "";
    std::size_t b = s.find_last_not_of(" \t");
    return s.substr(a, b - a + 1);
}

// Defaults are expressions over builtins and the module's own constants.
static object eval_default(const std::string& expr) {
    return steal(PyRun_String(expr.c_str(), Py_eval_input, g_globals, g_globals));
}

void Signature::parse(const std::string& text) {
    std::size_t lp = text.find('(');
    std::size_t rp = text.rfind(')');
    name = text.substr(0, lp);
    std::string inner = text.substr(lp + 1, rp - lp - 1);
    std::vector<std::string> parts;
    int depth = 0;
    std::string cur;
    for (char c : inner) {
        if (c == '(' || c == '[' || c == '{') depth++;
        if (c == ')' || c == ']' || c == '}') depth--;
        if (c == ',' && depth == 0) {
            parts.push_back(trim(cur));
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!trim(cur).empty()) parts.push_back(trim(cur));
    bool kwonly = false;
    for (auto& p : parts) {
        if (p == "$self") {
            has_self = true;
            continue;
        }
        if (p == "*") {
            kwonly = true;
            continue;
        }
        if (p.rfind("**", 0) == 0) {
            has_varkw = true;
            continue;
        }
        if (p.rfind("*", 0) == 0) {
            has_varargs = true;
            kwonly = true;
            continue;
        }
        Param prm;
        std::size_t eq = p.find('=');
        if (eq == std::string::npos) {
            prm.name = p;
        } else {
            prm.name = trim(p.substr(0, eq));
            prm.dflt = eval_default(trim(p.substr(eq + 1)));
        }
        prm.kwonly = kwonly;
        if (!kwonly) n_positional++;
        params.push_back(std::move(prm));
    }
    if (params.size() > 16) throw std::runtime_error("too many parameters in " + text);
    for (auto& p : params) interned_names.push_back(PyUnicode_InternFromString(p.name.c_str()));
}

void Signature::bind(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Args& out) const {
    out.self = self;
    const std::size_t np = params.size();
    std::size_t given = (std::size_t)nargs;
    if (given > n_positional) {
        if (!has_varargs) {
            std::size_t required = 0;
            for (std::size_t i = 0; i < n_positional; ++i)
                if (!params[i].dflt) required++;
            std::size_t extra = has_self ? 1 : 0;
            if (required == n_positional)
                PyErr_Format(PyExc_TypeError, "%s() takes %zu positional argument%s but %zd %s given", name.c_str(),
                             n_positional + extra, (n_positional + extra) == 1 ? "" : "s", nargs + (Py_ssize_t)extra,
                             (nargs + extra) == 1 ? "was" : "were");
            else
                PyErr_Format(PyExc_TypeError, "%s() takes from %zu to %zu positional arguments but %zd were given",
                             name.c_str(), required + extra, n_positional + extra, nargs + (Py_ssize_t)extra);
            throw_py();
        }
        out.varargs = steal(PyTuple_New((Py_ssize_t)(given - n_positional)));
        for (std::size_t i = n_positional; i < given; ++i) {
            Py_INCREF(args[i]);
            PyTuple_SET_ITEM(out.varargs.ptr(), (Py_ssize_t)(i - n_positional), args[i]);
        }
        given = n_positional;
    } else if (has_varargs) {
        out.varargs = steal(PyTuple_New(0));
    }
    for (std::size_t i = 0; i < np; ++i) out.slot[i] = nullptr;
    for (std::size_t i = 0; i < given; ++i) out.slot[i] = args[i];
    if (has_varkw) out.varkw = new_dict();
    if (kwnames) {
        Py_ssize_t nk = PyTuple_GET_SIZE(kwnames);
        for (Py_ssize_t k = 0; k < nk; ++k) {
            PyObject* key = PyTuple_GET_ITEM(kwnames, k);
            PyObject* val = args[nargs + k];
            std::size_t idx = np;
            for (std::size_t i = 0; i < np; ++i) {
                if (interned_names[i] == key) {
                    idx = i;
                    break;
                }
            }
            if (idx == np) {
                for (std::size_t i = 0; i < np; ++i) {
                    int eq = PyUnicode_Compare(interned_names[i], key);
                    if (eq == -1 && PyErr_Occurred()) throw_py();
                    if (eq == 0) {
                        idx = i;
                        break;
                    }
                }
            }
            if (idx == np) {
                if (has_varkw) {
                    dict_set(out.varkw, key, val);
                    continue;
                }
                PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", name.c_str(), key);
                throw_py();
            }
            if (out.slot[idx]) {
                PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%s'", name.c_str(),
                             params[idx].name.c_str());
                throw_py();
            }
            out.slot[idx] = val;
        }
    }
    for (std::size_t i = 0; i < np; ++i) {
        if (out.slot[i]) continue;
        if (params[i].dflt) {
            out.slot[i] = params[i].dflt.ptr();
            continue;
        }
        PyErr_Format(PyExc_TypeError, "%s() missing 1 required %s argument: '%s'", name.c_str(),
                     params[i].kwonly ? "keyword-only" : "positional", params[i].name.c_str());
        throw_py();
    }
}

// ---------------------------------------------------------------- registration

namespace detail {

// The host's forced unwinding is a foreign exception: the handler that lets it
// through binds its reference to no object, which is how the runtime passes it.
__attribute__((no_sanitize("null"))) void translate_current_cpp_exception() {
    try {
        throw;
    } catch (const forced_unwind&) {
        throw;
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (py::builtin_exception& e) {
        e.set_error();
    } catch (std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "unknown C++ exception");
    }
}

PyMethodDef* make_def(const char* text_sig, PyCFunction fn, const char* doc, Signature*& sig_out) {
    auto* sig = new Signature();
    sig->parse(text_sig);
    sig_out = sig;
    auto* def = new PyMethodDef();
    char* name = new char[sig->name.size() + 1];
    std::memcpy(name, sig->name.c_str(), sig->name.size() + 1);
    // "name(sig)\n--\n\ndoc" gives the function a __text_signature__.
    std::string full = std::string(text_sig) + "\n--\n\n" + (doc ? doc : "");
    char* docbuf = new char[full.size() + 1];
    std::memcpy(docbuf, full.c_str(), full.size() + 1);
    def->ml_name = name;
    def->ml_meth = fn;
    def->ml_flags = METH_FASTCALL | METH_KEYWORDS;
    def->ml_doc = docbuf;
    return def;
}

object new_function(PyMethodDef* def, const char* module) {
    object modname = str_of(module);
    return steal(PyCFunction_NewEx(def, nullptr, modname.ptr()));
}

object new_method(handle cls, PyMethodDef* def) {
    return steal(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), def));
}

}  // namespace detail

void add_property(handle cls, const char* name, handle fget, handle fset, const char* doc) {
    object prop_type = borrow(reinterpret_cast<PyObject*>(&PyProperty_Type));
    object d = doc ? str_of(doc) : none();
    object p = call(prop_type, {fget, fset ? fset : handle(Py_None), handle(Py_None), d});
    set_attr(cls, handle(PyUnicode_InternFromString(name)), p);
}

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
            fld = call_kw(field_fn, {}, {{ID("default"), eval_default(expr)}});
        }
        list_append(specs, tuple_of({str_of(f.first), any, fld}));
    }
    object cls = call(get_attr(dc, ID("make_dataclass")), {str_of(name), specs});
    return finish_class(std::move(cls), name, doc);
}

// ---------------------------------------------------------------- start-up errors

object startup_error(const char* code, const char* advice, handle message) {
    object status = call_kw(global(ID("SearchStatus")), {}, {{ID("running"), handle(Py_False)}});
    object code_obj = str_of(code);
    object advice_obj = str_of(advice);
    return call_kw(global(ID("SearchError")), {},
                   {{ID("error_code"), code_obj},
                    {ID("recovery_advice"), advice_obj},
                    {ID("message"), message},
                    {ID("status"), status}});
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
