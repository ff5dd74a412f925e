#include "core/binding.hpp"

#include <cstring>
#include <new>
#include <stdexcept>

namespace tw {

static std::string trim(const std::string& s) {
    std::size_t a = s.find_first_not_of(" \t");
    if (a == std::string::npos) return "";
    std::size_t b = s.find_last_not_of(" \t");
    return s.substr(a, b - a + 1);
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
            prm.dflt = eval_in_module(trim(p.substr(eq + 1)));
        }
        prm.kwonly = kwonly;
        if (!kwonly) n_positional++;
        params.push_back(std::move(prm));
    }
    if (params.size() > max_params) throw std::logic_error("too many parameters in " + text);
    for (auto& p : params) interned_names.push_back(PyUnicode_InternFromString(p.name.c_str()));
}

void Signature::bind(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Bound& b) const {
    const std::size_t np = params.size();
    PyObject** slot = b.argv.data() + (has_self ? 1 : 0);
    if (has_self) b.argv[0] = self;
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
        b.varargs = steal(PyTuple_New((Py_ssize_t)(given - n_positional)));
        for (std::size_t i = n_positional; i < given; ++i) {
            Py_INCREF(args[i]);
            PyTuple_SET_ITEM(b.varargs.ptr(), (Py_ssize_t)(i - n_positional), args[i]);
        }
        given = n_positional;
    } else if (has_varargs) {
        b.varargs = steal(PyTuple_New(0));
    }
    for (std::size_t i = 0; i < np; ++i) slot[i] = nullptr;
    for (std::size_t i = 0; i < given; ++i) slot[i] = args[i];
    if (has_varkw) b.varkw = new_dict();
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
                    dict_set(b.varkw, key, val);
                    continue;
                }
                PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", name.c_str(), key);
                throw_py();
            }
            if (slot[idx]) {
                PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%s'", name.c_str(),
                             params[idx].name.c_str());
                throw_py();
            }
            slot[idx] = val;
        }
    }
    for (std::size_t i = 0; i < np; ++i) {
        if (slot[i]) continue;
        if (params[i].dflt) {
            slot[i] = params[i].dflt.ptr();
            continue;
        }
        PyErr_Format(PyExc_TypeError, "%s() missing 1 required %s argument: '%s'", name.c_str(),
                     params[i].kwonly ? "keyword-only" : "positional", params[i].name.c_str());
        throw_py();
    }
    std::size_t k = np;
    if (has_varargs) slot[k++] = b.varargs.ptr();
    if (has_varkw) slot[k++] = b.varkw.ptr();
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

PyMethodDef* make_def(const char* text_sig, PyCFunction fn, const char* doc, Signature*& sig_out, std::size_t arity) {
    auto* sig = new Signature();
    sig->parse(text_sig);
    if (arity != static_cast<std::size_t>(-1) && arity != sig->arity())
        throw std::logic_error(std::string("the C++ function bound to \"") + text_sig + "\" takes " +
                               std::to_string(arity) + " arguments, the signature binds " +
                               std::to_string(sig->arity()));
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
    object key = steal(PyUnicode_InternFromString(name));
    set_attr(cls, key, p);
    // As a class body would: the property learns its name, which the host's own
    // "has no setter" and "has no deleter" errors print.
    call_method(p, ID("__set_name__"), {cls, key});
}

}  // namespace tw
