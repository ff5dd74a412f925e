#include "vocabulary/normalize.hpp"

#include "core/module.hpp"

#include <algorithm>

namespace tw::vocab {

// ---------------------------------------------------------------- VocabSchemaError

static object sorted_joined(handle names) {
    object l = list_from(names);
    check_int(PyList_Sort(l.ptr()));
    object sep = str_of(", ");
    return steal(PyUnicode_Join(sep.ptr(), l.ptr()));
}

object schema_error_init(handle self, handle source_kind_arg, handle missing_arg, handle unexpected_arg, handle entry, handle message_arg) {
    object source_kind = py_str(source_kind_arg);
    object missing = steal(PyFrozenSet_New(missing_arg.ptr()));
    object unexpected = steal(PyFrozenSet_New(unexpected_arg.ptr()));
    set_attr(self, ID("source_kind"), source_kind);
    set_attr(self, ID("missing"), missing);
    set_attr(self, ID("unexpected"), unexpected);
    set_attr(self, ID("entry"), entry);
    object message = borrow(message_arg.ptr());
    if (is_none(message)) {
        object parts = new_list();
        list_append(parts, ftext({str_of("vocabulary "), source_kind, str_of(" entry violates canonical contract")}));
        if (PySet_GET_SIZE(missing.ptr()) > 0)
            list_append(parts, ftext({str_of("missing fields: "), sorted_joined(missing)}));
        if (PySet_GET_SIZE(unexpected.ptr()) > 0)
            list_append(parts, ftext({str_of("unexpected fields: "), sorted_joined(unexpected)}));
        object sep = str_of("; ");
        message = steal(PyUnicode_Join(sep.ptr(), parts.ptr()));
    }
    object base_init = get_attr(handle(PyExc_ValueError), ID("__init__"));
    call(base_init, {self, message});
    return none();
}

static object raise_schema_error(handle source_kind, handle missing, handle unexpected, handle entry) {
    object cls = global(ID("VocabSchemaError"));
    object exc = call_kw(cls, {source_kind},
                         {{ID("missing"), missing}, {ID("unexpected"), unexpected}, {ID("entry"), entry}});
    raise_obj(exc);
}

// ---------------------------------------------------------------- flattening

static const LateFn k_flatten("_flatten_vocabulary_entries");
static const LateFn k_validate_function("_validate_function_entry");
static const LateFn k_validate_feature("_validate_feature_entry");

// _flatten_vocabulary_entries(node) as a list (a replacement may answer with any iterable)
static object flatten_late(handle node) {
    object entries = k_flatten.run<flatten_entries>(node);
    return PyList_CheckExact(entries.ptr()) ? entries : list_from(entries);
}

object flatten_entries(handle node) {
    object out = new_list();
    if (is_list(node)) {
        Py_ssize_t n = PyList_GET_SIZE(node.ptr());
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(node.ptr()) && i < n; ++i) {
            object item = borrow(PyList_GET_ITEM(node.ptr(), i));
            if (is_dict(item)) list_append(out, dict_copy(item));
        }
        return out;
    }
    if (is_dict(node)) {
        RecursionGuard guard(" while flattening vocabulary entries");
        object values = steal(PyDict_Values(node.ptr()));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(values.ptr()); ++i) {
            object value = borrow(PyList_GET_ITEM(values.ptr(), i));
            object sub = flatten_late(value);
            check_int(PyList_SetSlice(out.ptr(), PY_SSIZE_T_MAX, PY_SSIZE_T_MAX, sub.ptr()));
        }
        return out;
    }
    return out;
}

// ---------------------------------------------------------------- validation

static object missing_from(handle required, handle entry) {
    object missing = steal(PySet_New(nullptr));
    object it = steal(PyObject_GetIter(required.ptr()));
    while (PyObject* k = PyIter_Next(it.ptr())) {
        object key = steal(k);
        if (check_int(PyDict_Contains(entry.ptr(), key.ptr())) == 0) check_int(PySet_Add(missing.ptr(), key.ptr()));
    }
    if (PyErr_Occurred()) throw_py();
    return missing;
}

void validate_function_entry(handle entry, handle source_kind) {
    object required, forbidden;
    if (is_str(source_kind) && PyUnicode_CompareWithASCIIString(source_kind.ptr(), "rotation") == 0) {
        required = global(ID("_ROTATION_REQUIRED_FIELDS"));
        forbidden = steal(PyFrozenSet_New(nullptr));
    } else if (is_str(source_kind) && PyUnicode_CompareWithASCIIString(source_kind.ptr(), "filtration") == 0) {
        required = global(ID("_FILTRATION_REQUIRED_FIELDS"));
        forbidden = global(ID("_FILTRATION_FORBIDDEN_FIELDS"));
    } else if (is_str(source_kind) && PyUnicode_CompareWithASCIIString(source_kind.ptr(), "reduction") == 0) {
        required = global(ID("_REDUCTION_REQUIRED_FIELDS"));
        forbidden = steal(PyFrozenSet_New(nullptr));
    } else {
        raise_text(PyExc_ValueError, ftext({str_of("unknown function source_kind "), py_repr(source_kind)}));
    }
    if (!is_dict(entry)) raise_schema_error(source_kind, required, steal(PyFrozenSet_New(nullptr)), entry);
    object missing = missing_from(required, entry);
    object unexpected = steal(PySet_New(nullptr));
    object it = steal(PyObject_GetIter(forbidden.ptr()));
    while (PyObject* k = PyIter_Next(it.ptr())) {
        object key = steal(k);
        if (check_int(PyDict_Contains(entry.ptr(), key.ptr())) == 1) check_int(PySet_Add(unexpected.ptr(), key.ptr()));
    }
    if (PyErr_Occurred()) throw_py();
    PyObject* ft = PyDict_GetItemWithError(entry.ptr(), ID("function_type").ptr());
    if (!ft && PyErr_Occurred()) throw_py();
    if (ft) {
        object hold = borrow(ft);
        int eq = PyObject_RichCompareBool(ft, source_kind.ptr(), Py_EQ);
        if (check_int(eq) == 0) check_int(PySet_Add(unexpected.ptr(), ID("function_type").ptr()));
    }
    if (PySet_GET_SIZE(missing.ptr()) > 0 || PySet_GET_SIZE(unexpected.ptr()) > 0)
        raise_schema_error(source_kind, missing, unexpected, entry);
}

void validate_feature_entry(handle entry) {
    object kind = str_of("feature");
    object required = global(ID("_FEATURE_REQUIRED_FIELDS"));
    if (!is_dict(entry)) raise_schema_error(kind, required, steal(PyFrozenSet_New(nullptr)), entry);
    object missing = missing_from(required, entry);
    object unexpected = steal(PySet_New(nullptr));
    PyObject* ft = PyDict_GetItemWithError(entry.ptr(), ID("function_type").ptr());
    if (!ft && PyErr_Occurred()) throw_py();
    if (ft) {
        object hold = borrow(ft);
        if (check_int(PyObject_RichCompareBool(ft, kind.ptr(), Py_EQ)) == 0)
            check_int(PySet_Add(unexpected.ptr(), ID("function_type").ptr()));
    }
    object stats_keys = global(ID("_FEATURE_STATS_REQUIRED_KEYS"));
    PyObject* stats = PyDict_GetItemWithError(entry.ptr(), ID("stats").ptr());
    if (!stats && PyErr_Occurred()) throw_py();
    if (stats) {
        object hold = borrow(stats);
        object it = steal(PyObject_GetIter(stats_keys.ptr()));
        bool is_record = is_dict(hold);
        while (PyObject* k = PyIter_Next(it.ptr())) {
            object key = steal(k);
            if (!is_record || check_int(PyDict_Contains(stats, key.ptr())) == 0) {
                object name = ftext({str_of("stats."), key});
                check_int(PySet_Add(missing.ptr(), name.ptr()));
            }
        }
        if (PyErr_Occurred()) throw_py();
    }
    if (PySet_GET_SIZE(missing.ptr()) > 0 || PySet_GET_SIZE(unexpected.ptr()) > 0)
        raise_schema_error(kind, missing, unexpected, entry);
}

// ---------------------------------------------------------------- normalisation

object normalize(handle vocab) {
    if (!is_dict(vocab)) {
        object out = new_dict();
        dict_set(out, ID("functions"), new_list());
        dict_set(out, ID("features"), new_list());
        return out;
    }
    object normalized = dict_copy(vocab);
    object functions = dict_get(normalized, ID("functions"));
    if (!is_list(functions)) {
        object flat = new_list();
        static const std::pair<const char*, const char*> sources[] = {
            {"rotations", "rotation"}, {"filtrations", "filtration"}, {"reductions", "reduction"}};
        for (auto& [key, kind] : sources) {
            object empty = new_dict();
            object node = dict_get(normalized, str_of(key), empty);
            object entries = flatten_late(node);
            object source_kind = str_of(kind);
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(entries.ptr()); ++i) {
                object entry = borrow(PyList_GET_ITEM(entries.ptr(), i));
                k_validate_function.run<validate_function_entry>(entry, source_kind);
                list_append(flat, dict_copy(entry));
            }
        }
        dict_set(normalized, ID("functions"), flat);
    }
    object features = dict_get(normalized, ID("features"));
    if (!is_list(features)) {
        object entries = flatten_late(features);
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(entries.ptr()); ++i) {
            object entry = borrow(PyList_GET_ITEM(entries.ptr(), i));
            k_validate_feature.run<validate_feature_entry>(entry);
        }
        dict_set(normalized, ID("features"), entries);
    }
    return normalized;
}

}  // namespace tw::vocab
