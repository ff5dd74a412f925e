#include "core/errors.hpp"
#include "core/module.hpp"

namespace tw {

object search_error(handle code, handle advice, handle message, handle status) {
    return call(global(ID("SearchError")), {code, advice, message, status});
}

object startup_error(const char* code, const char* advice, handle message) {
    object status = new_record(global(ID("SearchStatus")), {{ID("running"), handle(Py_False)}});
    return search_error(str_of(code), str_of(advice), message, status);
}

void set_context(handle newer, handle older) {
    if (newer.ptr() == older.ptr()) return;
    PyException_SetContext(newer.ptr(), older.inc_ref().ptr());
}

void chain_fetched_error(PyObject* type, PyObject* value, PyObject* traceback) {
    if (!type) return;
    PyObject *t, *v, *tb;
    PyErr_Fetch(&t, &v, &tb);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback) PyException_SetTraceback(value, traceback);
    PyErr_NormalizeException(&t, &v, &tb);
    if (v && v != value) {
        PyException_SetContext(v, value);  // takes the reference to value
        value = nullptr;
    }
    Py_XDECREF(type);
    Py_XDECREF(value);
    Py_XDECREF(traceback);
    PyErr_Restore(t, v, tb);
}

void close_resource(handle resource) {
    object close = get_attr_or_none(resource, ID("close"));
    if (PyCallable_Check(close.ptr())) call(close);
}

void reraise(handle exc) {
    PyObject* tb = PyException_GetTraceback(exc.ptr());  // new reference or null
    PyErr_Restore(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr()))), Py_NewRef(exc.ptr()), tb);
    throw_py();
}

}  // namespace tw
